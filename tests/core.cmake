# The folder of cases/ and consoles/, text that tests compare with.
target_compile_definitions(test_support PUBLIC TEXTS="${CMAKE_CURRENT_SOURCE_DIR}/")

corvo_test(log_test SOURCES log_test.cpp LINK log PkgConfig::NANOMSG)
target_include_directories(log_test PRIVATE ${PROJECT_SOURCE_DIR}/log)

corvo_test(dbus_test SOURCES dbus_test.cpp LINK dbus WRAP send)
target_include_directories(dbus_test PRIVATE ${PROJECT_SOURCE_DIR}/dbus)

# The service's own objects, with the desk's answers behind its system calls. Its folder, not its
# name, tells it apart: the service says under which name it runs.
corvo_program(corvo_upgrade_on_desk SOURCES ${PROJECT_SOURCE_DIR}/ota/main.cpp support/desk_calls.cpp
              LINK ota dbus log platform)
set_target_properties(corvo_upgrade_on_desk PROPERTIES OUTPUT_NAME corvo_upgrade
                      RUNTIME_OUTPUT_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/desk)
target_link_options(corvo_upgrade_on_desk PRIVATE -Wl,--export-dynamic-symbol=Plt_Log_TcpPrint)
foreach(call _exit sleep usleep pthread_cond_timedwait open64 fopen64 read write lseek64 fstat64 ioctl fsync fdatasync remove
        msgrcv msgctl socket connect send calloc pthread_create)
  target_link_options(corvo_upgrade_on_desk PRIVATE -Wl,--wrap=${call})
endforeach()

add_library(test_camera STATIC support/camera.cpp)
target_link_libraries(test_camera PUBLIC test_support dbus ota_request)
target_compile_definitions(test_camera PRIVATE
  SERVICE_PROGRAM="$<TARGET_FILE:corvo_upgrade>"
  SERVICE_PROGRAM_ON_DESK="$<TARGET_FILE:corvo_upgrade_on_desk>")
add_dependencies(test_camera corvo_upgrade corvo_upgrade_on_desk)

corvo_test(upgrade_test SOURCES upgrade_test.cpp LINK test_camera PkgConfig::NANOMSG)
target_compile_definitions(upgrade_test PRIVATE CONSOLES="${CMAKE_CURRENT_SOURCE_DIR}/consoles/")

corvo_test(hostile_test SOURCES hostile_test.cpp LINK test_camera PkgConfig::NANOMSG)
corvo_test(signal_test SOURCES signal_test.cpp LINK test_camera)
corvo_test(sweep_test SOURCES sweep_test.cpp LINK test_camera TIMEOUT 600)

# The same program once more under valgrind, where nothing else instruments it.
find_program(VALGRIND valgrind)
if(VALGRIND AND NOT CORVO_SANITIZE)
  add_test(NAME Upgrade.UnderValgrind
           COMMAND upgrade_test
                   --gtest_filter=*OtherPackage*:*Missing*:*AutoFlash*:*ReadBack*:*Unterminated*)
  set_tests_properties(Upgrade.UnderValgrind PROPERTIES ENVIRONMENT CORVO_VALGRIND=1 TIMEOUT 300)
endif()
