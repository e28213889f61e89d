# Cross-builds for the 32-bit ARM board with Debian's compiler and the libraries that
# `board/fetch sysroot` unpacked outside the tree.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT "$ENV{CORVANE_CACHE_DIR}" STREQUAL "")
    set(corvane_cache "$ENV{CORVANE_CACHE_DIR}")
elseif(NOT "$ENV{XDG_CACHE_HOME}" STREQUAL "")
    set(corvane_cache "$ENV{XDG_CACHE_HOME}/corvane")
else()
    set(corvane_cache "$ENV{HOME}/.cache/corvane")
endif()
set(CMAKE_SYSROOT "${corvane_cache}/sysroot")
if(NOT IS_DIRECTORY "${CMAKE_SYSROOT}/usr/include")
    message(FATAL_ERROR "The armhf libraries are not in ${CMAKE_SYSROOT}. Run: board/fetch sysroot")
endif()

find_program(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
find_program(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
if(NOT CMAKE_CXX_COMPILER)
    message(FATAL_ERROR
        "The cross compiler is missing. Run: apt-get install g++-arm-linux-gnueabihf")
endif()

set(CMAKE_FIND_ROOT_PATH "${CMAKE_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${CMAKE_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${CMAKE_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig")
