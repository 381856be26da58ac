# The demo uses the programs of the release build, so it is tested only there.
if(NOT CMAKE_BINARY_DIR STREQUAL "${PROJECT_SOURCE_DIR}/build/release")
  return()
endif()
set(demo ${PROJECT_SOURCE_DIR}/scripts/private_root ${PROJECT_SOURCE_DIR}/scripts/demo --inside)
add_test(NAME Demo.Files COMMAND ${demo})
add_test(NAME Demo.Combined COMMAND ${demo} --combined --one-copy)
add_test(NAME Demo.Failure COMMAND ${demo} --fail --one-copy)
add_test(NAME Demo.CombinedFailure COMMAND ${demo} --combined --fail)
add_test(NAME Demo.Tampered COMMAND ${demo} --tampered)
add_test(NAME Demo.CombinedTampered COMMAND ${demo} --combined --tampered)
add_test(NAME Demo.Unhealthy COMMAND ${demo} --unhealthy)
add_test(NAME Demo.Shell
         COMMAND sh -c "\"$@\" --shell < ${CMAKE_CURRENT_SOURCE_DIR}/support/demo_shell.sh" sh
                 ${demo})
set_tests_properties(Demo.Shell PROPERTIES PASS_REGULAR_EXPRESSION "two upgrades, two restarts")
set_tests_properties(Demo.Files Demo.Combined Demo.Failure Demo.CombinedFailure Demo.Tampered
                     Demo.CombinedTampered Demo.Unhealthy Demo.Shell
                     PROPERTIES TIMEOUT 120 COST 400)
