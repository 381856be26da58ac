if(NOT CORVO_BUILD_AGENT)
  return()
endif()

corvo_test(agent_test SOURCES agent_test.cpp support/session.cpp LINK agent_parts WRAP syscall)
target_compile_definitions(agent_test PRIVATE PROGRAMS="$<TARGET_FILE_DIR:corvo_agent>")
add_dependencies(agent_test corvo_agent)
if(CMAKE_CROSSCOMPILING)
  return()
endif()
find_package(CURL REQUIRED)

# A second build of the agent, which can be killed at each of its calls (agent_cuts.cpp).
add_executable(corvo_agent_with_cuts $<TARGET_OBJECTS:corvo_agent_main> support/agent_cuts.cpp)
target_link_libraries(corvo_agent_with_cuts PRIVATE agent_parts command_line CURL::libcurl)
set_target_properties(corvo_agent_with_cuts PROPERTIES OUTPUT_NAME corvo_agent
                      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/with_cuts)
foreach(symbol rename renameat unlink unlinkat mkdir mkdirat ftruncate64 fsync fdatasync write pwrite64 msgrcv msgsnd curl_easy_perform
               nanosleep clock_gettime getrandom)
  target_link_options(corvo_agent_with_cuts PRIVATE -Wl,--wrap=${symbol})
endforeach()

corvo_test(agent_action_test SOURCES agent_action_test.cpp support/agent_world.cpp support/forgetful_storage.cpp support/session.cpp
           LINK agent_parts test_camera simulated_server TIMEOUT 600)
target_compile_definitions(agent_action_test PRIVATE
  AGENT_WITH_CUTS="$<TARGET_FILE:corvo_agent_with_cuts>"
  PROGRAMS="$<TARGET_FILE_DIR:otactl>")
add_dependencies(agent_action_test otactl corvo_agent_with_cuts corvo_agent corvo_commit)
