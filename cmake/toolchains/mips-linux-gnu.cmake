# 32-bit big-endian MIPS (o32) with Debian's g++-mips-linux-gnu, the routers'
# processor. Binaries run on the build machine through qemu-mips-static.
#
# Size is what a router with a few MB of RAM cares about: -Os, every function
# and datum in its own section so the linker drops what nothing calls, and the
# C++ runtime linked in, since a router's C library rarely ships libstdc++.
# -DQWD_FULLY_STATIC=ON links the C library in too.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR mips)

set(CMAKE_C_COMPILER mips-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER mips-linux-gnu-g++)
set(CMAKE_FIND_ROOT_PATH /usr/mips-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Tests run through qemu with the cross toolchain's loader and C library,
# unless the caller passes an empty emulator because the kernel runs MIPS
# programs itself (binfmt_misc).
find_program(QWD_QEMU_MIPS qemu-mips-static)
if(QWD_QEMU_MIPS AND NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QWD_QEMU_MIPS} -L /usr/mips-linux-gnu)
endif()

set(CMAKE_CXX_FLAGS_INIT "-ffunction-sections -fdata-sections")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static-libstdc++ -static-libgcc -Wl,--gc-sections")
# MIPS32 has no 64-bit atomic instructions: the tests' 64-bit counters need
# libatomic. As needed only, so a product binary that pulls it in shows up in
# its dynamic section.
set(CMAKE_CXX_STANDARD_LIBRARIES "-Wl,--push-state,--as-needed -latomic -Wl,--pop-state")
if(QWD_FULLY_STATIC)
  string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -static")
endif()
