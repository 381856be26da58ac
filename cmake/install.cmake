# Installation into the file system of a camera. The components are service (with its daemon), tools,
# agent, simulated (the replacement of the manufacturer's library), bringup, commit, sysv, systemd,
# agent_sysv, agent_systemd, commit_sysv, commit_systemd, and symbols, which are for the developer's host.
# Only the first four are installed without being named.
#
#   DESTDIR=ROOT cmake --install build/arm --strip --component service
include(GNUInstallDirs)
set(install_symbols ${PROJECT_SOURCE_DIR}/cmake/install_symbols.cmake)

# corvo_install(TARGET ...): install(TARGETS) for a program or library that is shipped. Also installs
# its debug information with the component symbols, and writes a linker map to the folder maps/.
function(corvo_install target)
  install(TARGETS ${target} ${ARGN})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    return()
  endif()
  target_link_options(${target} PRIVATE -Wl,-Map=${CMAKE_BINARY_DIR}/maps/${target}.map)
  install(CODE "execute_process(COMMAND \"${CMAKE_COMMAND}\" -D \"READELF=${CMAKE_READELF}\"
      -D \"OBJCOPY=${CMAKE_OBJCOPY}\" -D \"PROGRAM=$<TARGET_FILE:${target}>\"
      -D \"FOLDER=\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/lib/debug\"
      -P \"${install_symbols}\" COMMAND_ERROR_IS_FATAL ANY)" COMPONENT symbols EXCLUDE_FROM_ALL)
endfunction()
file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/maps)

corvo_install(corvo_upgrade RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT service)
if(CORVO_BUILD_TOOLS)
  corvo_install(system_call_daemon RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT service)
  corvo_install(otactl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # Not in the component tools, because it writes to flash without asking for confirmation.
  corvo_install(hal_tool RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT bringup EXCLUDE_FROM_ALL)
endif()
# Not installed by default, because it needs a boot loader that counts starts, and its script becomes the
# board's own /etc/init.d/S99checkboot.
if(TARGET corvo_commit)
  corvo_install(corvo_commit RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT commit EXCLUDE_FROM_ALL)
endif()
if(TARGET corvo_agent)
  corvo_install(corvo_agent RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)
  corvo_install(corvo_agent_sleeper RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)
  corvo_install(corvo_agent_prepare RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT agent)
endif()
# The manufacturer's platform library is part of the manufacturer's system. Only the replacement in
# sim/platform_library/ is installed from here, with a separate component: on a camera it must not take
# the place of the real library.
if(NOT CORVO_PLATFORM_LIBRARY)
  corvo_install(platform LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT simulated
                ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development EXCLUDE_FROM_ALL)
endif()

# The init scripts and units contain the full paths of the programs. Several of them include the shell
# functions of running.sh.in and upgrading.sh.in.
set(corvo_sbindir ${CMAKE_INSTALL_FULL_SBINDIR})
file(READ ${PROJECT_SOURCE_DIR}/packaging/running.sh.in corvo_running)
string(STRIP "${corvo_running}" corvo_running)
file(READ ${PROJECT_SOURCE_DIR}/packaging/upgrading.sh.in corvo_upgrading)
string(CONFIGURE "${corvo_upgrading}" corvo_upgrading @ONLY)
foreach(name S79corvo_slots S80corvo_upgrade corvo-slots.service corvo-upgrade.service
             corvo-system-call.service S94corvo_agent corvo-agent.service S99checkboot corvo-commit.service)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/${name}.in ${PROJECT_BINARY_DIR}/packaging/${name}
                 @ONLY)
endforeach()
set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
                                                             packaging/upgrading.sh.in packaging/running.sh.in)
# In the build folder beside the programs, where tests, simulations and the manual pages find it.
configure_file(${PROJECT_SOURCE_DIR}/packaging/corvo_slots ${PROJECT_BINARY_DIR}/corvo_slots COPYONLY)
install(PROGRAMS ${PROJECT_BINARY_DIR}/corvo_slots DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT service)
install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S79corvo_slots ${PROJECT_BINARY_DIR}/packaging/S80corvo_upgrade
        DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d COMPONENT sysv EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_BINARY_DIR}/packaging/corvo-upgrade.service
              ${PROJECT_BINARY_DIR}/packaging/corvo-slots.service
        DESTINATION lib/systemd/system COMPONENT systemd EXCLUDE_FROM_ALL)
# Without the program this unit would fail at each start.
if(CORVO_BUILD_TOOLS)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/corvo-system-call.service
          DESTINATION lib/systemd/system COMPONENT systemd EXCLUDE_FROM_ALL)
endif()
if(TARGET corvo_commit)
  install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S99checkboot DESTINATION lib/corvo COMPONENT commit
          EXCLUDE_FROM_ALL)
  install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S99checkboot
          DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d COMPONENT commit_sysv EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/corvo-commit.service DESTINATION lib/systemd/system
          COMPONENT commit_systemd EXCLUDE_FROM_ALL)
endif()
if(TARGET corvo_agent)
  install(PROGRAMS ${PROJECT_BINARY_DIR}/packaging/S94corvo_agent
          DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/init.d COMPONENT agent_sysv EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_BINARY_DIR}/packaging/corvo-agent.service DESTINATION lib/systemd/system
          COMPONENT agent_systemd EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/sysusers.conf DESTINATION lib/sysusers.d
          RENAME corvo-agent.conf COMPONENT agent_systemd EXCLUDE_FROM_ALL)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/udev.rules DESTINATION lib/udev/rules.d
          RENAME 60-corvo-flash.rules COMPONENT agent_systemd EXCLUDE_FROM_ALL)
endif()
