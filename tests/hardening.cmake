# Checks the installed programs of the release build. scripts/cross_check does this for the static builds,
# which have no tests.
if(NOT CORVO_HARDENING OR NOT CMAKE_BUILD_TYPE STREQUAL "MinSizeRel")
  return()
endif()
add_test(NAME Hardening.Marks COMMAND ${PROJECT_SOURCE_DIR}/scripts/check_hardening ${CMAKE_BINARY_DIR})

# Nothing in a program shows which calls are checked, so this tests one whose size is known only at run time. It
# is compiled with the options of the release, not with those of the tests.
add_executable(overrun support/overrun.cpp)
get_directory_property(shipped DIRECTORY ${PROJECT_SOURCE_DIR} COMPILE_OPTIONS)
set_target_properties(overrun PROPERTIES COMPILE_OPTIONS "${shipped}")
add_test(NAME Hardening.OverrunEndsTheProgram COMMAND overrun)
