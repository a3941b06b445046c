# SPDX-License-Identifier: MIT
# Toolchain for a cross build with Debian's cross compilers (make cross ARCH=...). The machine
# comes from the environment (VOKT_CROSS), which CMake's own test compilations see as well,
# and is kept in the cache for later runs of CMake without it.
# The tests run under qemu-user with the machine's libraries from /usr/<triple>; i386 runs
# natively (an x86-64 kernel runs 32-bit programs).
if(DEFINED ENV{VOKT_CROSS})
  set(VOKT_CROSS "$ENV{VOKT_CROSS}" CACHE STRING "The machine of a cross build" FORCE)
endif()
if(VOKT_CROSS STREQUAL "i386")
  set(triple i686-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR i686)
  set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
elseif(VOKT_CROSS STREQUAL "arm64")
  set(triple aarch64-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR aarch64)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L /usr/${triple})
elseif(VOKT_CROSS STREQUAL "s390x")
  set(triple s390x-linux-gnu)
  set(CMAKE_SYSTEM_PROCESSOR s390x)
  set(CMAKE_CROSSCOMPILING_EMULATOR qemu-s390x -L /usr/${triple})
else()
  message(FATAL_ERROR "VOKT_CROSS must be i386, arm64 or s390x")
endif()
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${triple}-gcc)
set(CMAKE_CXX_COMPILER ${triple}-g++)
if(NOT CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_LIBRARY_ARCHITECTURE ${triple})
endif()
set(CMAKE_FIND_ROOT_PATH /usr/${triple})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
