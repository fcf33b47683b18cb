# Toolchain for 64-bit ARM (Debian arm64).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)
set(VOCASTRA_EMULATOR qemu-aarch64-static)
set(target_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
