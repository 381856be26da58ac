# The command lines of the scripts do not depend on the build, so they are tested only in the release build.
if(CMAKE_BINARY_DIR STREQUAL "${PROJECT_SOURCE_DIR}/build/release")
  add_test(NAME Scripts.HelpAndWrongUse
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/support/script_help.sh ${PROJECT_SOURCE_DIR}
                   ${CMAKE_CURRENT_BINARY_DIR}/script_help)
  add_test(NAME Scripts.AreRun
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/support/scripts_run.sh ${PROJECT_SOURCE_DIR})
  # Skipped without SimPy or the measured figures.
  add_test(NAME Fleet.ModelOfRollouts COMMAND ${PROJECT_SOURCE_DIR}/sim/fleet/extrapolate --validate)
  set_tests_properties(Fleet.ModelOfRollouts PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600)
endif()
