# Toolchain for 32-bit ARM (Debian armhf).
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(VOCASTRA_EMULATOR qemu-arm-static)
set(target_sysroot ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot)
include(${CMAKE_CURRENT_LIST_DIR}/debian.cmake)
