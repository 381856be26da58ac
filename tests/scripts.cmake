# The scripts' own command lines, once.
if(CMAKE_BINARY_DIR STREQUAL "${PROJECT_SOURCE_DIR}/build/release")
  add_test(NAME Scripts.HelpAndWrongUse
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/support/script_help.sh ${PROJECT_SOURCE_DIR}
                   ${CMAKE_CURRENT_BINARY_DIR}/script_help)
  add_test(NAME Scripts.AreRun
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/support/scripts_run.sh ${PROJECT_SOURCE_DIR})
endif()
