if(TARGET otactl)
  corvo_test(tools_test SOURCES tools_test.cpp LINK otactl_parts dbus log)
  target_compile_definitions(
    tools_test PRIVATE OTACTL="$<TARGET_FILE:otactl>" HAL_TOOL="$<TARGET_FILE:hal_tool>"
                       SYSTEM_CALL_DAEMON="$<TARGET_FILE:system_call_daemon>")
  add_dependencies(tools_test otactl hal_tool system_call_daemon)
endif()
