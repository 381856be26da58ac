# Reproducible builds: the same sources result in identical files, whoever builds them, where and when.

# Programs and their debug information contain source paths relative to the project, not absolute
# ones. (If several maps match a path, the compiler uses the last one.)
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-prefix-map=${CMAKE_BINARY_DIR}=./build)

# Release builds have debug information, which is moved to separate files at installation. A core file
# from a camera identifies the programs by their build ids.
add_compile_options($<$<CONFIG:MinSizeRel>:-g>)
add_link_options(-Wl,--build-id=sha1)

# In the build folder, programs find the platform library in their own folder ($ORIGIN), so that they
# do not contain the path of the build folder. Installed programs have no such search path.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)

execute_process(COMMAND ${PROJECT_SOURCE_DIR}/scripts/source_date
                OUTPUT_VARIABLE CORVO_SOURCE_DATE OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
