# Toolchain file for the 32-bit ARM (armhf) cross build.
#
#   scripts/arm-sysroot.sh                       # once; reused afterwards
#   cmake -S . -B build/arm -DCMAKE_TOOLCHAIN_FILE=cmake/arm-linux-gnueabihf.cmake
#   cmake --build build/arm -j2 && ctest --test-dir build/arm
#
# The C and C++ runtime come from Debian's cross toolchain
# (g++-arm-linux-gnueabihf, /usr/arm-linux-gnueabihf); OpenSSL, libcurl,
# GoogleTest and their dependencies from the sysroot that scripts/arm-sysroot.sh
# unpacks from Debian's armhf packages. Tests run under qemu-arm through
# scripts/qemu-arm-run.sh.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ORVO_ARM_TRIPLET arm-linux-gnueabihf)
set(CMAKE_C_COMPILER ${ORVO_ARM_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ORVO_ARM_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${ORVO_ARM_TRIPLET})

# The sysroot: -DORVO_ARM_SYSROOT=..., else $ORVO_ARM_SYSROOT, else the same
# default cache directory that scripts/arm-sysroot.sh uses.
if(NOT ORVO_ARM_SYSROOT)
  if(DEFINED ENV{ORVO_ARM_SYSROOT} AND NOT "$ENV{ORVO_ARM_SYSROOT}" STREQUAL "")
    set(ORVO_ARM_SYSROOT "$ENV{ORVO_ARM_SYSROOT}")
  elseif(DEFINED ENV{XDG_CACHE_HOME} AND NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
    set(ORVO_ARM_SYSROOT "$ENV{XDG_CACHE_HOME}/orvo-arm-sysroot")
  elseif(DEFINED ENV{HOME} AND NOT "$ENV{HOME}" STREQUAL "")
    set(ORVO_ARM_SYSROOT "$ENV{HOME}/.cache/orvo-arm-sysroot")
  else()
    set(ORVO_ARM_SYSROOT "/tmp/.cache/orvo-arm-sysroot")
  endif()
endif()
set(ORVO_ARM_SYSROOT "${ORVO_ARM_SYSROOT}" CACHE PATH "armhf sysroot made by scripts/arm-sysroot.sh")
# try_compile projects re-read this file; hand the sysroot on to them.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVO_ARM_SYSROOT)
if(NOT EXISTS "${ORVO_ARM_SYSROOT}/.orvo-sysroot")
  message(FATAL_ERROR "No armhf sysroot at ${ORVO_ARM_SYSROOT}: run scripts/arm-sysroot.sh ${ORVO_ARM_SYSROOT}")
endif()

set(_sr "${ORVO_ARM_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${_sr}" "/usr/${ORVO_ARM_TRIPLET}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers of the sysroot's -dev packages come after the toolchain's own, so
# nothing in the sysroot can shadow the C or C++ library headers.
set(_inc "-idirafter ${_sr}/usr/include/${ORVO_ARM_TRIPLET} -idirafter ${_sr}/usr/include")
set(CMAKE_C_FLAGS_INIT "${_inc}")
set(CMAKE_CXX_FLAGS_INIT "${_inc}")
# The linker must find the libraries that libcurl and libssl pull in when it
# links a program against liborvo.
set(_rpl "-Wl,-rpath-link,${_sr}/usr/lib/${ORVO_ARM_TRIPLET} -Wl,-rpath-link,${_sr}/lib/${ORVO_ARM_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_rpl}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_rpl}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_rpl}")

# pkg-config reads the sysroot's .pc files only, and prefixes their paths.
set(ENV{PKG_CONFIG_LIBDIR} "${_sr}/usr/lib/${ORVO_ARM_TRIPLET}/pkgconfig:${_sr}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${_sr}")
set(ENV{PKG_CONFIG_PATH} "")

get_filename_component(_runner "${CMAKE_CURRENT_LIST_DIR}/../scripts/qemu-arm-run.sh" ABSOLUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR
    "${_runner};${_sr};${CMAKE_BINARY_DIR}")
