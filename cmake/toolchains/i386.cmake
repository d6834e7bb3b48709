# SPDX-License-Identifier: MIT
# 32-bit x86, by Debian's g++-i686-linux-gnu. An x86-64 machine runs what it builds, given the loader
# and the libraries.
set(target i686-linux-gnu)
set(target_processor i686)
set(target_flags "")
set(CMAKE_CROSSCOMPILING_EMULATOR
  /usr/${target}/lib/ld-linux.so.2 --library-path /usr/${target}/lib)
# A user-mode Linux of that machine runs no 32-bit x86.
set(MORDEL_GUEST_EMULATOR qemu-i386 -L /usr/${target})
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
