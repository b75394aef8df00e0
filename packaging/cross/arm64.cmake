# Cross build for arm64: Debian's aarch64-linux-gnu toolchain, qemu-aarch64-static to run tests.
set(HOSTRIX_CROSS_TRIPLE aarch64-linux-gnu)
set(HOSTRIX_CROSS_QEMU qemu-aarch64-static)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain.cmake)
