# 32-bit little-endian MIPS (o32), with Debian's g++-mipsel-linux-gnu. The
# processor is "mips" for both byte orders, as Linux names it.
set(QWD_CROSS_TRIPLE mipsel-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mips)
set(QWD_QEMU qemu-mipsel-static)
include(${CMAKE_CURRENT_LIST_DIR}/linux-cross.cmake)
