# The camera's processor with glibc, dynamically linked: Debian's cross compiler and, from
# scripts/sysroot, its packages of this architecture.
cmake_path(SET corvo_checkout NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../..)
set(CORVO_SYSROOT ${corvo_checkout}build/sysroot/glibc
    CACHE PATH "What scripts/sysroot glibc made")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVO_SYSROOT)
if(NOT EXISTS ${CORVO_SYSROOT}/root)
  message(FATAL_ERROR "no sysroot at ${CORVO_SYSROOT}: run scripts/sysroot glibc first")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Everything here is built by one compiler, so what older ones passed differently is no news.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
# Where Debian keeps the libraries of this architecture.
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Test programs run in a root of their own, which they cannot enter by themselves when emulated.
set(CMAKE_CROSSCOMPILING_EMULATOR ${corvo_checkout}scripts/private_root
                                  qemu-arm-static -L ${CORVO_SYSROOT}/root)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot_only.cmake)
set(ENV{PKG_CONFIG_LIBDIR} ${CORVO_SYSROOT}/root/usr/lib/arm-linux-gnueabihf/pkgconfig)
# Where the camera's loader looks anyway: programs need not say so.
set(CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES ${CORVO_SYSROOT}/root/usr/lib/arm-linux-gnueabihf)
# Where what a library needs in turn is found, when a program is linked with it.
foreach(corvo_folder lib usr/lib)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${CORVO_SYSROOT}/root/${corvo_folder}/arm-linux-gnueabihf")
endforeach()
