# Tests for the camera's processor run under qemu-user, but the host's kernel cannot execute the programs that
# the tests start. So the tests start a script instead, which starts the emulator under the name of the program,
# because the program reads its name from /proc/self/comm. If EMULATED_PROGRAM is set in the environment, the
# script starts that build of the program, with another C library.
if(NOT CMAKE_CROSSCOMPILING)
  return()
endif()

find_program(QEMU_ARM qemu-arm-static REQUIRED)
set(emulator_folder ${CMAKE_CURRENT_BINARY_DIR}/emulator)

# emulated_script(TARGET SCRIPT): writes this script for a target, with the program's name in a separate folder,
# and sets the variable SCRIPT to its path.
function(emulated_script target script)
  file(MAKE_DIRECTORY ${emulator_folder}/${target})
  get_target_property(name ${target} OUTPUT_NAME)
  if(NOT name)
    set(name ${target})
  endif()
  set(path ${emulator_folder}/${target}/start/${name})
  file(CREATE_LINK ${QEMU_ARM} ${emulator_folder}/${target}/${name} SYMBOLIC)
  file(GENERATE OUTPUT ${path}
       CONTENT "#!/bin/sh
exec ${emulator_folder}/${target}/${name} \"\${EMULATED_PROGRAM:-$<TARGET_FILE:${target}>}\" \"$@\"
"
       FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
                        WORLD_EXECUTE)
  set(${script} ${path} PARENT_SCOPE)
endfunction()

emulated_script(corvo_upgrade service)
emulated_script(corvo_upgrade_with_faults service_with_faults)
set_target_properties(test_camera PROPERTIES COMPILE_DEFINITIONS
  "SERVICE_PROGRAM=\"${service}\";SERVICE_WITH_FAULTS=\"${service_with_faults}\"")
emulated_script(otactl otactl_script)
emulated_script(otactl_with_faults otactl_with_faults_script)
emulated_script(hal_tool_with_faults hal_tool_script)
emulated_script(system_call_daemon daemon_script)
cmake_path(GET otactl_script PARENT_PATH otactl_folder)
cmake_path(GET otactl_with_faults_script PARENT_PATH otactl_with_faults_folder)
cmake_path(GET hal_tool_script PARENT_PATH hal_tool_folder)
set_target_properties(tools_test PROPERTIES COMPILE_DEFINITIONS
  "PROGRAMS=\"${hal_tool_folder}:${otactl_folder}:${otactl_with_faults_folder}\";SYSTEM_CALL_DAEMON=\"${daemon_script}\"")
if(CORVO_BUILD_AGENT)
  foreach(target corvo_agent corvo_agent_sleeper corvo_agent_prepare)
    emulated_script(${target} script)
    cmake_path(GET script PARENT_PATH folder)
    list(APPEND agent_folders ${folder})
  endforeach()
  list(JOIN agent_folders : agent_folders)
  set_target_properties(agent_test PROPERTIES COMPILE_DEFINITIONS "PROGRAMS=\"${agent_folders}\"")
endif()
set_target_properties(package_test PROPERTIES COMPILE_DEFINITIONS
  "PROGRAMS=\"${otactl_with_faults_folder}:${otactl_folder}\";EMULATED=true")
