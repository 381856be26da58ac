# Compares docs/security.md with a running system; only with the programs of the release build.
if(CMAKE_BINARY_DIR STREQUAL "${PROJECT_SOURCE_DIR}/build/release")
  add_test(NAME Security.PageIsTrue
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/support/security_page.sh ${CMAKE_BINARY_DIR})
  set_tests_properties(Security.PageIsTrue PROPERTIES TIMEOUT 120 COST 400)
endif()
