corvo_test(log_test SOURCES log_test.cpp LINK log otactl_parts PkgConfig::NANOMSG
           WRAP nn_socket nn_allocmsg nn_send gettimeofday)
target_include_directories(log_test PRIVATE ${PROJECT_SOURCE_DIR}/src/log)

corvo_test(dbus_test SOURCES dbus_test.cpp LINK test_faults dbus)
target_include_directories(dbus_test PRIVATE ${PROJECT_SOURCE_DIR}/src/dbus)

add_library(test_camera STATIC support/simulated_camera.cpp)
target_link_libraries(test_camera PUBLIC test_support dbus upgrade_package)
target_precompile_headers(test_camera REUSE_FROM test_support)
target_compile_definitions(test_camera PRIVATE
  SERVICE_PROGRAM="$<TARGET_FILE:corvo_upgrade>"
  SERVICE_WITH_FAULTS="$<TARGET_FILE:corvo_upgrade_with_faults>")
add_dependencies(test_camera corvo_upgrade corvo_upgrade_with_faults)

corvo_test(upgrade_test SOURCES upgrade_test.cpp LINK test_camera ota otactl_parts)
target_include_directories(upgrade_test PRIVATE ${PROJECT_SOURCE_DIR}/src/ota)

corvo_test(hostile_test SOURCES hostile_test.cpp LINK test_camera otactl_parts)
corvo_test(signal_test SOURCES signal_test.cpp LINK test_camera)
corvo_test(sweep_test SOURCES sweep_test.cpp LINK test_camera TIMEOUT 600)

# The same program under valgrind, except in builds with a sanitizer.
find_program(VALGRIND valgrind)
if(VALGRIND AND NOT CORVO_SANITIZE)
  add_test(NAME Upgrade.UnderValgrind
           COMMAND upgrade_test
                   --gtest_filter=*ToTheEnd:*Unterminated*)
  set_tests_properties(Upgrade.UnderValgrind PROPERTIES ENVIRONMENT CORVO_VALGRIND=memcheck-amd64- TIMEOUT 300
                       COST 400) # ctest starts the longest test first
endif()
