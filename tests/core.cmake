corvo_test(log_test SOURCES log_test.cpp LINK log PkgConfig::NANOMSG)
target_include_directories(log_test PRIVATE ${PROJECT_SOURCE_DIR}/log)

corvo_test(dbus_test SOURCES dbus_test.cpp LINK dbus WRAP send)
target_include_directories(dbus_test PRIVATE ${PROJECT_SOURCE_DIR}/dbus)
