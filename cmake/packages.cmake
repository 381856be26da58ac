# Debian packages, built by scripts/package: corvo-upgrade (the service, its daemon and their units),
# corvo-upgrade-tools, corvo-upgrade-bringup, corvo-commit, corvo-agent if the agent is built, and,
# without a manufacturer's library, corvo-platform-simulated.
if(NOT CORVO_BUILD_TOOLS)
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_GROUPING ONE_PER_GROUP)
set(CPACK_COMPONENTS_ALL service systemd debian_base tools debian_tools bringup debian_bringup
                         commit commit_systemd debian_commit)
set(groups base tools bringup commit)
if(NOT CORVO_PLATFORM_LIBRARY)
  list(APPEND CPACK_COMPONENTS_ALL simulated debian_simulated)
  list(APPEND groups simulated)
endif()
if(TARGET corvo_agent)
  list(APPEND CPACK_COMPONENTS_ALL agent agent_systemd debian_agent)
  list(APPEND groups agent)
endif()
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
                                                GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Corvo camera <firmware@corvo-camera.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# scripts/package sets the architecture when it builds packages for another processor.
if(CORVO_DEBIAN_ARCHITECTURE)
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${CORVO_DEBIAN_ARCHITECTURE})
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_PACKAGE_CONTACT ${CPACK_DEBIAN_PACKAGE_MAINTAINER})

set(CPACK_DEBIAN_BASE_PACKAGE_PACKAGE_NAME corvo-upgrade)
set(CPACK_DEBIAN_BASE_PACKAGE_DESCRIPTION "firmware upgrade service of the Corvo camera
Waits for a request, writes the images that it names into their partitions,
reads them back, records the outcome, switches the boot slot and restarts the
camera. Comes with the daemon that runs its shell commands. Needs the platform
library libktmosaic.so of the camera's manufacturer, which is part of the
camera's system and of no package.")
# These packages contain the commands that the service runs through the daemon.
set(CPACK_DEBIAN_BASE_PACKAGE_PACKAGE_DEPENDS "mount, psmisc")
set(CPACK_DEBIAN_BASE_PACKAGE_PACKAGE_RECOMMENDS "libubootenv-tool")
set(CPACK_DEBIAN_BASE_PACKAGE_PACKAGE_SUGGESTS "corvo-upgrade-tools, corvo-platform-simulated")
set(CPACK_DEBIAN_TOOLS_PACKAGE_PACKAGE_NAME corvo-upgrade-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DESCRIPTION "firmware upgrade service of the Corvo camera - sender
otactl makes packages of images, posts upgrade requests to the service and
shows their progress.")
set(CPACK_DEBIAN_BRINGUP_PACKAGE_PACKAGE_NAME corvo-upgrade-bringup)
set(CPACK_DEBIAN_BRINGUP_PACKAGE_DESCRIPTION "firmware upgrade service of the Corvo camera - new boards
hal_tool calls one operation of the hardware modules, for bringing up a new
board. It writes to flash without asking for confirmation; do not install it
on cameras that are sold.")
set(CPACK_DEBIAN_SIMULATED_PACKAGE_PACKAGE_NAME corvo-platform-simulated)
set(CPACK_DEBIAN_SIMULATED_PACKAGE_DESCRIPTION "firmware upgrade service of the Corvo camera - simulation
A replacement of the platform library libktmosaic.so, with which the service
runs on a host or an emulator. It initialises no hardware; do not install it
on cameras, whose manufacturer provides the real library.")
# Up to this version corvo-upgrade contained the library.
set(CPACK_DEBIAN_SIMULATED_PACKAGE_PACKAGE_REPLACES "corvo-upgrade (<< 0.0.3)")
set(CPACK_DEBIAN_SIMULATED_PACKAGE_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/simulated/triggers)
set(CPACK_DEBIAN_COMMIT_PACKAGE_PACKAGE_NAME corvo-commit)
set(CPACK_DEBIAN_COMMIT_PACKAGE_DESCRIPTION "firmware upgrade service of the Corvo camera - trials
corvo_commit decides at each start whether a new system stays: it commits the
system of the running slot when that is healthy, and otherwise returns to the
other slot. Comes with the script that switches slots in a U-Boot environment.")
set(CPACK_DEBIAN_COMMIT_PACKAGE_PACKAGE_DEPENDS "libubootenv-tool, systemd")
set(commit_scripts ${PROJECT_SOURCE_DIR}/packaging/debian/commit)
set(CPACK_DEBIAN_COMMIT_PACKAGE_PACKAGE_CONTROL_EXTRA ${commit_scripts}/postinst ${commit_scripts}/prerm
                                                      ${commit_scripts}/postrm)
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_NAME corvo-agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_DESCRIPTION "firmware upgrade service of the Corvo camera - fleets
corvo_agent polls an update server (Eclipse hawkBit), downloads what it offers
to this camera, checks the signature, posts the request to the service, and
reports the result to the server after the camera has restarted.")
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_DEPENDS "corvo-upgrade, systemd")
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_RECOMMENDS "ca-certificates, libubootenv-tool")
set(agent_scripts ${PROJECT_SOURCE_DIR}/packaging/debian/agent)
set(CPACK_DEBIAN_AGENT_PACKAGE_PACKAGE_CONTROL_EXTRA ${agent_scripts}/postinst ${agent_scripts}/prerm
                                                     ${agent_scripts}/postrm)

set(scripts)
foreach(name postinst prerm postrm)
  configure_file(${PROJECT_SOURCE_DIR}/packaging/debian/${name}.in
                 ${PROJECT_BINARY_DIR}/packaging/debian/${name} @ONLY)
  list(APPEND scripts ${PROJECT_BINARY_DIR}/packaging/debian/${name})
endforeach()
set(CPACK_DEBIAN_BASE_PACKAGE_PACKAGE_CONTROL_EXTRA ${scripts})

# Files that Debian requires in addition to the programs: manual pages, completion, changelog and
# copyright. scripts/package has generated the manual pages and the changelog in this folder.
set(CORVO_DEBIAN_PAPERS "" CACHE PATH "Folder of the manual pages and changelog for Debian packages")
foreach(group IN LISTS groups)
  string(TOUPPER ${group} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_PACKAGE_NAME})
  install(FILES ${CORVO_DEBIAN_PAPERS}/changelog.gz ${PROJECT_SOURCE_DIR}/packaging/debian/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT debian_${group}
          EXCLUDE_FROM_ALL)
endforeach()
install(FILES ${CORVO_DEBIAN_PAPERS}/corvo_upgrade.8.gz ${CORVO_DEBIAN_PAPERS}/system_call_daemon.8.gz
              ${CORVO_DEBIAN_PAPERS}/corvo_slots.8.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT debian_base EXCLUDE_FROM_ALL)
install(FILES ${CORVO_DEBIAN_PAPERS}/otactl.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT debian_tools EXCLUDE_FROM_ALL)
install(FILES ${CORVO_DEBIAN_PAPERS}/hal_tool.8.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT debian_bringup EXCLUDE_FROM_ALL)
install(FILES ${CORVO_DEBIAN_PAPERS}/corvo_commit.8.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT debian_commit EXCLUDE_FROM_ALL)
if(TARGET corvo_agent)
  install(FILES ${CORVO_DEBIAN_PAPERS}/corvo_agent.8.gz ${CORVO_DEBIAN_PAPERS}/corvo_agent_sleeper.8.gz
                ${CORVO_DEBIAN_PAPERS}/corvo_agent_prepare.8.gz
          DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT debian_agent EXCLUDE_FROM_ALL)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME corvo-upgrade
        COMPONENT debian_base EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/debian/simulated/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME corvo-platform-simulated
        COMPONENT debian_simulated EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/otactl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME otactl
        COMPONENT debian_tools EXCLUDE_FROM_ALL)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/otactl.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME corvo_commit
        COMPONENT debian_commit EXCLUDE_FROM_ALL)

include(CPack)
foreach(group IN LISTS groups)
  cpack_add_component_group(${group}_package)
  cpack_add_component(debian_${group} GROUP ${group}_package)
endforeach()
cpack_add_component(service GROUP base_package)
cpack_add_component(systemd GROUP base_package)
cpack_add_component(tools GROUP tools_package)
cpack_add_component(bringup GROUP bringup_package)
if(NOT CORVO_PLATFORM_LIBRARY)
  cpack_add_component(simulated GROUP simulated_package)
endif()
cpack_add_component(commit GROUP commit_package)
cpack_add_component(commit_systemd GROUP commit_package)
if(TARGET corvo_agent)
  cpack_add_component(agent GROUP agent_package)
  cpack_add_component(agent_systemd GROUP agent_package)
endif()
