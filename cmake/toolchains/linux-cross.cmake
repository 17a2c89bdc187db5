# Shared part of the router toolchains, one per CPU: each sets QWD_CROSS_TRIPLE
# (Debian's g++-<triple> cross compiler), CMAKE_SYSTEM_PROCESSOR and QWD_QEMU
# (the qemu user emulator that runs its programs here), optionally
# QWD_CROSS_CXX_FLAGS, then includes this.
#
# Size is what a router with a few MB of RAM cares about: -Os, every function
# and datum in its own section so the linker drops what nothing calls, and the
# C++ runtime linked in, since a router's C library rarely ships libstdc++.
# -DQWD_FULLY_STATIC=ON links the C library in too.
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${QWD_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${QWD_CROSS_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${QWD_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests run through qemu with the cross toolchain's loader and C library,
# unless the caller passes an empty emulator because the kernel hands the
# CPU's programs to qemu itself (binfmt_misc).
find_program(QWD_QEMU_PROGRAM ${QWD_QEMU})
if(QWD_QEMU_PROGRAM AND NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QWD_QEMU_PROGRAM} -L /usr/${QWD_CROSS_TRIPLE})
endif()

set(CMAKE_CXX_FLAGS_INIT "${QWD_CROSS_CXX_FLAGS} -ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc -Wl,--gc-sections")
# 32-bit CPUs may lack 64-bit atomic instructions (MIPS32 does): the tests'
# 64-bit counters need libatomic. As needed only, so a product binary that
# pulls it in shows up in its dynamic section.
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--push-state,--as-needed -latomic -Wl,--pop-state")
if(QWD_FULLY_STATIC)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -static")
endif()
