# The script would install git; a test must not install anything, so it needs an installed git.
find_program(GIT git)
if(GIT AND CMAKE_BINARY_DIR STREQUAL "${PROJECT_SOURCE_DIR}/build/release" AND EXISTS ${PROJECT_SOURCE_DIR}/.git)
  add_test(NAME Release.IsPreparedAndRefused
           COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/support/release_refusals.sh)
endif()
