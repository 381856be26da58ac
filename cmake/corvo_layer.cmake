# Build rules for all layers of the service.

# The service must also run on systems without the C++ run-time library, so its code uses no
# exceptions, no run-time type information and no guarded statics. corvo_program() links with the C
# driver, so code that breaks this rule causes an undefined reference. Unwind tables are not needed at
# run time; debuggers use the debug information.
set(CORVO_SERVICE_OPTIONS -fno-exceptions -fno-rtti -fno-threadsafe-statics -ffunction-sections
                          -fdata-sections -fno-asynchronous-unwind-tables -fno-unwind-tables)

# corvo_layer(NAME SOURCES file... [INCLUDE folder] [PUBLIC target...] [PRIVATE target...])
#
# Defines one layer as a static library. Other layers can include the headers of its INCLUDE folder
# (default: include/) only if they list the layer as a dependency. Headers in the folder of the
# sources are private. PUBLIC dependencies are those that the layer's public headers include.
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
# Defines a program that needs no C++ run-time library. Linking with the C driver verifies that.
function(corvo_program name)
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "" "SOURCES;LINK")
  add_executable(${name} ${arg_SOURCES})
  target_compile_options(${name} PRIVATE ${CORVO_SERVICE_OPTIONS})
  target_link_libraries(${name} PRIVATE ${arg_LINK})
  target_link_options(${name} PRIVATE -Wl,--gc-sections -Wl,--as-needed)
  set_target_properties(${name} PROPERTIES LINKER_LANGUAGE C
                                           RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR})
endfunction()
