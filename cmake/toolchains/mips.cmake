# SPDX-License-Identifier: MIT
# Big-endian 32-bit MIPS, by Debian's g++-mips-linux-gnu; what it builds runs under qemu-user.
set(target mips-linux-gnu)
set(target_processor mips)
set(target_flags "-march=mips32r2")
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-mips -L /usr/${target})
include(${CMAKE_CURRENT_LIST_DIR}/debian_cross.cmake)
