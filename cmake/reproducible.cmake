# The same sources make the same bytes, whoever builds them, where and when.

# Programs, their debug information included, know files by their place in the project. (The last
# map that fits counts.)
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=./build)

# What ships is built with debug information, which goes into files of its own when it is installed.
# A core file from a camera names the programs by their build ids.
add_compile_options($<$<CONFIG:MinSizeRel>:-g>)
add_link_options(-Wl,--build-id=sha1)

# In the build tree the platform library stands beside the programs. Installed they name no folder.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/source_date
                OUTPUT_VARIABLE CORVO_SOURCE_DATE OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
