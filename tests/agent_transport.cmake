# Tests of the agent with a simulated update server. Not in cross builds, because the library of the server is
# not available for the camera's processor.
if(NOT CORVO_BUILD_AGENT OR CMAKE_CROSSCOMPILING)
  return()
endif()
pkg_check_modules(HTTPLIB REQUIRED IMPORTED_TARGET cpp-httplib)
find_package(OpenSSL 3.0 REQUIRED COMPONENTS SSL)
find_package(nlohmann_json REQUIRED)

add_library(simulated_server STATIC support/simulated_server.cpp support/simulated_hawkbit.cpp)
target_link_libraries(simulated_server PUBLIC test_support PRIVATE upgrade_package nlohmann_json::nlohmann_json
                                           PkgConfig::HTTPLIB OpenSSL::SSL)

corvo_test(agent_transport_test SOURCES agent_transport_test.cpp support/session.cpp LINK simulated_server agent_download
                                        nlohmann_json::nlohmann_json TIMEOUT 300)
target_compile_definitions(agent_transport_test PRIVATE PROGRAMS="/usr/bin")

corvo_test(agent_chunks_test SOURCES agent_chunks_test.cpp support/chunked_images.cpp support/session.cpp
                             LINK simulated_server agent_download TIMEOUT 300)
target_compile_definitions(agent_chunks_test PRIVATE PROGRAMS="/usr/bin")
