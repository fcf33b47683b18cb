# Toolchain for 32-bit ARM (Debian armhf). The target's libraries come from a private sysroot that
# tools/armhf fills; the machine's own packages are not touched.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

set(ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/armhf-sysroot CACHE PATH "Target's libraries")
get_filename_component(armhf_sysroot ${ARMHF_SYSROOT} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${armhf_sysroot} /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
# Headers and CMake's package files of the sysroot come first; BOTH also finds the build directory.
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The program itself finds its libraries in the sysroot.
set(armhf_libraries ${armhf_sysroot}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_BUILD_RPATH ${armhf_sysroot}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${armhf_libraries})
# The linker also looks at what the libraries need.
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,-rpath-link,${armhf_libraries}/samba -Wl,-rpath-link,${armhf_libraries}/pulseaudio")
# GCC notes that it passes some arguments otherwise than before version 7; all here is built by one.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Tests of companions also need what their libraries need. A daemon under test does without, since
# tests give it libraries of their own.
set(VOCASTRA_EMULATOR qemu-arm-static -L /usr/arm-linux-gnueabihf)
list(JOIN CMAKE_BUILD_RPATH ":" armhf_path)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VOCASTRA_EMULATOR}
  -E LD_LIBRARY_PATH=${armhf_path}:${armhf_libraries}/samba:${armhf_libraries}/pulseaudio
  -E ESPEAK_DATA_PATH=${armhf_libraries}/espeak-ng-data)
