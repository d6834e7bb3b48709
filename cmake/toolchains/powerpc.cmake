# SPDX-License-Identifier: MIT
# Big-endian 32-bit PowerPC, by Debian's g++-powerpc-linux-gnu; what it builds runs under qemu-user.
set(target powerpc-linux-gnu)
set(target_processor ppc)
set(target_flags "")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-ppc -L /usr/${target})
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
