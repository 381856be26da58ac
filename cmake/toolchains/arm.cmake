# Toolchain for the camera's processor with glibc, linked dynamically: Debian's cross compiler, and a
# sysroot of Debian packages for this architecture, which scripts/sysroot creates.
cmake_path(SET corvo_checkout NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../..)
set(CORVO_SYSROOT ${corvo_checkout}build/sysroot/glibc
    CACHE PATH "Folder that scripts/sysroot glibc created")
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CORVO_SYSROOT)
if(NOT EXISTS ${CORVO_SYSROOT}/root)
  message(FATAL_ERROR "no sysroot at ${CORVO_SYSROOT}: run scripts/sysroot glibc first")
endif()

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Disables notes about calling conventions that changed since older compilers. They do not matter,
# since one compiler builds everything.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
# The subfolder in which Debian installs libraries of this architecture.
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
# Test programs run in a private root, which an emulated program cannot enter by itself.
set(CMAKE_CROSSCOMPILING_EMULATOR ${corvo_checkout}scripts/emulated)
include(${CMAKE_CURRENT_LIST_DIR}/sysroot_only.cmake)
set(ENV{PKG_CONFIG_LIBDIR} ${CORVO_SYSROOT}/root/usr/lib/arm-linux-gnueabihf/pkgconfig)
# The camera's dynamic loader searches this folder by default, so CMake must not add it to the run path
# of programs.
set(CMAKE_PLATFORM_IMPLICIT_LINK_DIRECTORIES ${CORVO_SYSROOT}/root/usr/lib/arm-linux-gnueabihf)
# Folders in which the linker finds the libraries that other libraries depend on.
foreach(corvo_folder lib usr/lib)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,-rpath-link,${CORVO_SYSROOT}/root/${corvo_folder}/arm-linux-gnueabihf")
endforeach()
