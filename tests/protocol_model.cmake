# The model of an action's road says the same on every machine: once, with the release build, is enough.
if(NOT CMAKE_BINARY_DIR STREQUAL "${PROJECT_SOURCE_DIR}/build/release")
  return()
endif()
add_test(NAME Protocol.Model COMMAND ${PROJECT_SOURCE_DIR}/scripts/check_protocol)
# It computes more than any other test, on two processors, and is begun first.
set_tests_properties(Protocol.Model PROPERTIES TIMEOUT 900 COST 1000 PROCESSORS 2)
