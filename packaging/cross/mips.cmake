# Cross build for mips: Debian's mips-linux-gnu toolchain, qemu-mips-static to run tests.
set(HOSTRIX_CROSS_TRIPLE mips-linux-gnu)
set(HOSTRIX_CROSS_QEMU qemu-mips-static)
include(${CMAKE_CURRENT_LIST_DIR}/toolchain.cmake)
# An executable of position-dependent code with PLT calls (-mplt): MIPS's
# position-independent calls through the GOT make the daemon a fifth larger
# (229 against 188 KiB). Libraries, stack and heap are still placed at random.
set(CMAKE_C_FLAGS_INIT "-fno-pie -mplt")
set(CMAKE_CXX_FLAGS_INIT "-fno-pie -mplt")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-no-pie")
