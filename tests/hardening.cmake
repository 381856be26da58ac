# The programs of what ships, as they are installed. The static builds have no tests of their own:
# scripts/cross_check looks at them.
if(NOT CORVO_HARDENING OR NOT CMAKE_BUILD_TYPE STREQUAL "MinSizeRel")
  return()
endif()
add_test(NAME Hardening.Marks COMMAND ${PROJECT_SOURCE_DIR}/scripts/check_hardening ${CMAKE_BINARY_DIR})

# No mark tells which calls are checked: one whose size is known only as it runs must be. It is compiled as
# what ships, not as tests are.
add_executable(overrun support/overrun.cpp)
get_directory_property(shipped DIRECTORY ${PROJECT_SOURCE_DIR} COMPILE_OPTIONS)
set_target_properties(overrun PROPERTIES COMPILE_OPTIONS "${shipped}")
add_test(NAME Hardening.OverrunEndsTheProgram COMMAND overrun)
