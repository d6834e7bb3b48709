# SPDX-License-Identifier: MIT
# What the toolchain files beside this one share. They set target, target_processor, target_flags
# and the emulator.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ${target_processor})
set(CMAKE_C_COMPILER ${target}-gcc)
set(CMAKE_CXX_COMPILER ${target}-g++)

set(CMAKE_FIND_ROOT_PATH /usr/${target})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# As shipped: only the sections that are used, and stripped
foreach(language C CXX)
  set(CMAKE_${language}_FLAGS_MINSIZEREL_INIT "${target_flags} -ffunction-sections -fdata-sections")
endforeach()
foreach(kind EXE SHARED)
  set(CMAKE_${kind}_LINKER_FLAGS_MINSIZEREL_INIT "-Wl,--gc-sections -s")
endforeach()
