# What a camera's file system gets, by components: service (with its daemon), tools, bringup,
# sysv, systemd. The last three are left out unless they are named.
#
#   DESTDIR=ROOT cmake --install build/arm --strip --component service
include(GNUInstallDirs)

install(TARGETS corvo_upgrade RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT service)
if(CORVO_BUILD_TOOLS)
  install(TARGETS system_call_daemon RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR}
          COMPONENT service)
  install(TARGETS otactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # It writes flash and asks nothing.
  install(TARGETS hal_tool RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT bringup
          EXCLUDE_FROM_ALL)
endif()
# The maker's library comes with the maker's system; only the stand-in is ours to install.
if(NOT CORVO_PLATFORM_LIBRARY)
  install(TARGETS platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT service
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development EXCLUDE_FROM_ALL)
endif()

# The scripts name the programs by their full paths.
set(corvo_sbindir ${CMAKE_INSTALL_FULL_SBINDIR})
foreach(name S80corvo_upgrade corvo-upgrade.service corvo-system-call.service)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/${name}.in ${PROJECT_BINARY_DIR}/packaging/${name}
                 @ONLY)
endforeach()
install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S80corvo_upgrade
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d COMPONENT sysv EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_BINARY_DIR}/packaging/corvo-upgrade.service
              ${PROJECT_BINARY_DIR}/packaging/corvo-system-call.service
        DESTINATION lib/systemd/system COMPONENT systemd EXCLUDE_FROM_ALL)
