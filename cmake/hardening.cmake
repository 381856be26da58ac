# Compiler and linker flags that make programming errors hard to exploit. Each flag is used only if
# the compiler, the linker and the C library support it. A line at configure time lists the flags that
# are used.
#
# The static libraries of the sysroots are built with this file too, so it must need only C and no
# other file of the project. A build system with its own hardening flags sets -DCORVO_HARDENING=OFF.
option(CORVO_HARDENING "Build with flags that make programming errors hard to exploit" ON)
if(NOT CORVO_HARDENING)
  message(STATUS "Hardening: off")
  return()
endif()

include(CheckCSourceCompiles)
set(hardening_on)
set(hardening_off)

# hardening_try(NAME SOURCE FLAG...): sets "taken" to whether the compiler and linker accept the flags.
function(hardening_try name source)
  list(JOIN ARGN " " CMAKE_REQUIRED_FLAGS)
  # clang warns about linker flags when it only compiles. gcc silently ignores this unknown option.
  string(APPEND CMAKE_REQUIRED_FLAGS " -Werror -Wno-unused-command-line-argument")
  set(CMAKE_REQUIRED_QUIET ON)
  string(MAKE_C_IDENTIFIER "HARDENING_${name}" variable)
  check_c_source_compiles("${source}" ${variable})
  set(taken "${${variable}}" PARENT_SCOPE)
endfunction()

# The array requires a stack canary, so the check fails if the C library does not support canaries.
set(hardening_probe "#include <string.h>
int main(int count, char** words) {
  char copy[64];
  strncpy(copy, words[0], sizeof(copy) - 1);
  return copy[count];
}")

macro(hardening_note name)
  if(taken)
    list(APPEND hardening_on ${name})
  else()
    list(APPEND hardening_off ${name})
  endif()
endmacro()

set(hardening_compiler stack-protector -fstack-protector-strong
                       stack-clash-protection -fstack-clash-protection)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|i.86)$")
  list(APPEND hardening_compiler cf-protection -fcf-protection)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  list(APPEND hardening_compiler branch-protection -mbranch-protection=standard)
endif()
# Not with a sanitizer, which would then not find reads of uninitialised variables.
if(NOT CORVO_SANITIZE)
  list(APPEND hardening_compiler zeroed-variables -ftrivial-auto-var-init=zero)
endif()
while(hardening_compiler)
  list(POP_FRONT hardening_compiler name flag)
  hardening_try(${name} "${hardening_probe}" ${flag})
  hardening_note(${name})
  if(taken)
    add_compile_options(${flag})
  endif()
endwhile()

# Checked calls of the C library (_FORTIFY_SOURCE), which need the optimiser to determine sizes. Not
# with a sanitizer, which intercepts the same calls.
if(NOT CORVO_SANITIZE)
  foreach(level 3 2)
    hardening_try(fortify-${level} "#include <string.h>
#if !defined(__USE_FORTIFY_LEVEL) || __USE_FORTIFY_LEVEL != ${level}
#error
#endif
int main(void) { return 0; }" -O2 -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${level})
    if(taken)
      set(fortify -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=${level})
      add_compile_options("$<$<CONFIG:Release,MinSizeRel,RelWithDebInfo>:${fortify}>")
      list(APPEND hardening_on fortify-${level})
      break()
    endif()
  endforeach()
  if(NOT taken)
    list(APPEND hardening_off fortify)
  endif()
endif()

# The toolchain file decides whether programs are static.
set(hardening_links "${CMAKE_EXE_LINKER_FLAGS}")
if(CMAKE_EXE_LINKER_FLAGS MATCHES "(^| )-static( |$)")
  set(name static-pie)
  string(REGEX REPLACE "(^| )-static( |$)" "\\1-static-pie\\2" CMAKE_EXE_LINKER_FLAGS
                       "${CMAKE_EXE_LINKER_FLAGS}")
  set(hardening_pie)
else()
  set(name pie)
  set(hardening_pie -pie)
endif()
hardening_try(${name} "${hardening_probe}" -fPIE ${hardening_pie})
hardening_note(${name})
if(taken)
  add_compile_options("$<$<NOT:$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>>:-fPIE>")
  add_link_options("$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:${hardening_pie}>")
else()
  set(CMAKE_EXE_LINKER_FLAGS "${hardening_links}")
endif()

foreach(name relro now noexecstack)
  hardening_try(${name} "${hardening_probe}" -Wl,-z,${name})
  hardening_note(${name})
  if(taken)
    add_link_options(-Wl,-z,${name})
  endif()
endforeach()

# Symbols are hidden by default. Those that other programs or libraries need are exported explicitly.
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
list(APPEND hardening_on hidden-visibility)

list(JOIN hardening_on " " hardening_on)
if(hardening_off)
  list(JOIN hardening_off " " hardening_off)
  string(APPEND hardening_on "; not supported: ${hardening_off}")
endif()
message(STATUS "Hardening: ${hardening_on}")
