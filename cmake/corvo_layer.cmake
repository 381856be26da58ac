# The rules that every layer of the service is built under, in one place.

# The service must build for C libraries that come with no C++ run-time library, so its code uses
# no exceptions, no run-time types and no guarded statics; the C link of corvo_program() turns a
# breach into an undefined reference. Nothing is unwound at run time; debuggers have their own tables.
set(CORVO_SERVICE_OPTIONS -fno-exceptions -fno-rtti -fno-threadsafe-statics -ffunction-sections
                          -fdata-sections -fno-asynchronous-unwind-tables -fno-unwind-tables)

# corvo_layer(NAME SOURCES file... [INCLUDE folder] [PUBLIC target...] [PRIVATE target...])
#
# One layer as a static library. Its INCLUDE folder, include/ by default, is what other layers may include, and only
# layers that name it as a dependency see it; headers beside the sources stay private. PUBLIC
# dependencies show through the layer's own headers, PRIVATE ones do not.
function(corvo_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "INCLUDE" "SOURCES;PUBLIC;PRIVATE")
  if(NOT arg_INCLUDE)
    set(arg_INCLUDE include)
  endif()
  add_library(${name} STATIC ${arg_SOURCES})
  set_property(GLOBAL APPEND PROPERTY CORVO_LAYERS ${name})
  target_include_directories(${name} PUBLIC ${arg_INCLUDE})
  target_compile_options(${name} PRIVATE ${CORVO_SERVICE_OPTIONS})
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE ${arg_PRIVATE})
endfunction()

# corvo_program(NAME SOURCES file... LINK target...)
#
# A program that needs no C++ run-time library, proved by linking it with the C driver.
function(corvo_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
  add_executable(${name} ${arg_SOURCES})
  target_compile_options(${name} PRIVATE ${CORVO_SERVICE_OPTIONS})
  target_link_libraries(${name} PRIVATE ${arg_LINK})
  target_link_options(${name} PRIVATE -Wl,--gc-sections -Wl,--as-needed)
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE C
                                           RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
endfunction()
