# A second build of hal_tool, with fault injection and simulated NOR chips.
add_executable(hal_tool_with_faults $<TARGET_OBJECTS:hal_tool_main> support/simulated_devices.cpp)
target_link_libraries(hal_tool_with_faults PRIVATE test_faults hal_tool_modules)
set_target_properties(hal_tool_with_faults PROPERTIES OUTPUT_NAME hal_tool
                      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/with_faults)

corvo_test(tools_test SOURCES tools_test.cpp support/session.cpp LINK otactl_parts dbus log TIMEOUT 300)
target_compile_definitions(
  tools_test PRIVATE PROGRAMS="$<TARGET_FILE_DIR:hal_tool_with_faults>:$<TARGET_FILE_DIR:otactl>"
                     SYSTEM_CALL_DAEMON="$<TARGET_FILE:system_call_daemon>")
add_dependencies(tools_test otactl otactl_with_faults hal_tool_with_faults system_call_daemon)

# A second build of otactl, with fault injection and a faster clock.
add_executable(otactl_with_faults $<TARGET_OBJECTS:otactl_main> support/fast_clock.cpp)
target_link_options(otactl_with_faults PRIVATE -Wl,--wrap=clock_gettime -Wl,--wrap=time)
target_link_libraries(otactl_with_faults PRIVATE test_faults otactl_parts upgrade_package commit_record command_line)
set_target_properties(otactl_with_faults PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/with_faults)

corvo_test(chunks_test SOURCES chunks_test.cpp support/chunked_images.cpp LINK chunks)

corvo_test(package_test SOURCES package_test.cpp support/session.cpp LINK upgrade_package log TIMEOUT 900)
target_compile_definitions(
  package_test PRIVATE PROGRAMS="$<TARGET_FILE_DIR:otactl_with_faults>:$<TARGET_FILE_DIR:otactl>"
                       EMULATED=false)
if(NOT CORVO_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  add_executable(otactl_short_of_memory $<TARGET_OBJECTS:otactl_main> support/short_memory.cpp)
  target_link_libraries(otactl_short_of_memory PRIVATE otactl_parts upgrade_package commit_record command_line)
  set_target_properties(otactl_short_of_memory PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/with_faults)
  add_dependencies(package_test otactl_short_of_memory)
endif()
add_dependencies(package_test otactl otactl_with_faults)

if(NOT CMAKE_CROSSCOMPILING)  # strace cannot trace emulated programs
  corvo_test(otactl_storage_test SOURCES otactl_storage_test.cpp support/forgetful_storage.cpp LINK)
  target_compile_definitions(otactl_storage_test PRIVATE PROGRAMS="$<TARGET_FILE_DIR:otactl>")
  add_dependencies(otactl_storage_test otactl)
endif()
