# A script that runs when symbols are installed. It copies the debug information of PROGRAM to a file
# below FOLDER whose path contains the build id, where debuggers search for it. READELF and OBJCOPY
# must support the program's processor.
execute_process(COMMAND ${READELF} -n ${PROGRAM} OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
  message(FATAL_ERROR "${PROGRAM} has no build id")
endif()
set(file ${FOLDER}/.build-id/${CMAKE_MATCH_1}/${CMAKE_MATCH_2}.debug)
get_filename_component(folder ${file} DIRECTORY)
file(MAKE_DIRECTORY ${folder})
execute_process(COMMAND ${OBJCOPY} --only-keep-debug ${PROGRAM} ${file} COMMAND_ERROR_IS_FATAL ANY)
file(CHMOD ${file} PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
message(STATUS "Installing: ${file}")
