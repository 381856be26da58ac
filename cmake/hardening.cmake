# What makes a fault in a program hard to use. Each flag is taken only where the compiler, the linker
# and the C library take it; one line at configure time says which are on.
#
# The sysroots' static libraries are built by this file too, so it needs C alone and nothing else of
# the project. A tree that has options of its own for this says -DCORVO_HARDENING=OFF.
option(CORVO_HARDENING "Build with what makes faults hard to use" ON)
if(NOT CORVO_HARDENING)
  message(STATUS "Hardening: off")
  return()
endif()

include(CheckCSourceCompiles)
set(hardening_on)
set(hardening_off)

# hardening_try(NAME SOURCE FLAG...): whether compiler and linker take the flags, in "taken".
function(hardening_try name source)
  list(JOIN ARGN " " CMAKE_REQUIRED_FLAGS)
  # clang warns of the linker's flags where it does not link; gcc knows no such warning and is silent.
  string(APPEND CMAKE_REQUIRED_FLAGS " -Werror -Wno-unused-command-line-argument")
  set(CMAKE_REQUIRED_QUIET ON)
  string(MAKE_C_IDENTIFIER "HARDENING_${name}" variable)
  check_c_source_compiles("${source}" ${variable})
  set(taken "${${variable}}" PARENT_SCOPE)
endfunction()

# The array calls for a canary, and so for what the C library has to do with it.
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
# A sanitizer looks for the reading of what was never set.
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

# Checked calls of the C library, which needs the optimiser to see sizes. A sanitizer stands behind
# the same calls.
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

# A static program is one that its toolchain asks for.
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

# What a program or library shows to others says so where it is declared.
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
list(APPEND hardening_on hidden-visibility)

list(JOIN hardening_on " " hardening_on)
if(hardening_off)
  list(JOIN hardening_off " " hardening_off)
  string(APPEND hardening_on "; not here: ${hardening_off}")
endif()
message(STATUS "Hardening: ${hardening_on}")
