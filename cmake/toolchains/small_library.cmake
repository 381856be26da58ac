# Toolchain for the camera's processor with a small C library, linked statically. SMALL_LIBRARY is musl
# or uclibc. scripts/sysroot creates the compiler wrappers and the sysroot.
cmake_path(SET corvo_checkout NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../..)
set(CORVO_SYSROOT ${corvo_checkout}build/sysroot/${SMALL_LIBRARY}
    CACHE PATH "Folder that scripts/sysroot ${SMALL_LIBRARY} created")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVO_SYSROOT)
if(NOT EXISTS ${CORVO_SYSROOT}/root)
  message(FATAL_ERROR "no sysroot at ${CORVO_SYSROOT}: run scripts/sysroot ${SMALL_LIBRARY} first")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER ${CORVO_SYSROOT}/bin/arm-${SMALL_LIBRARY}-gcc)
set(CMAKE_CXX_COMPILER ${CORVO_SYSROOT}/bin/arm-${SMALL_LIBRARY}-g++)
foreach(tool OBJCOPY READELF STRIP)
  string(TOLOWER ${tool} name)
  set(CMAKE_${tool} arm-linux-gnueabihf-${name})
endforeach()
set(CMAKE_C_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_CXX_FLAGS_INIT
    "-ffunction-sections -fdata-sections -fno-exceptions -fno-rtti -fno-threadsafe-statics -Wno-psabi")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,--gc-sections")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot_only.cmake)
set(ENV{PKG_CONFIG_LIBDIR} ${CORVO_SYSROOT}/root/usr/lib/pkgconfig)
# The manufacturer's platform library is a shared library, which a static program cannot use. It is
# linked with the static replacement in sim/platform_library instead.
set(CORVO_PLATFORM_TYPE STATIC)
