# The common part of the toolchains for Debian's architectures, which set
#   CMAKE_LIBRARY_ARCHITECTURE   the architecture's triplet
#   VOCASTRA_EMULATOR            runs its programs here
#   target_sysroot               the target's libraries, which tools/armhf fetches; the machine's own
#                                packages are not touched
set(CMAKE_SYSTEM_NAME Linux)
set(target_compiler /usr/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_C_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-gcc)
set(CMAKE_CXX_COMPILER ${CMAKE_LIBRARY_ARCHITECTURE}-g++)

get_filename_component(target_sysroot ${target_sysroot} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${target_sysroot} ${target_compiler})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
# Headers and CMake's package files of the sysroot come first; BOTH also finds the build directory.
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)

# The program itself finds its libraries in the sysroot.
set(target_libraries ${target_sysroot}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE})
set(CMAKE_BUILD_RPATH ${target_sysroot}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${target_libraries})
# The linker also reads the libraries' own dependencies.
set(CMAKE_EXE_LINKER_FLAGS_INIT
  "-Wl,-rpath-link,${target_libraries}/samba -Wl,-rpath-link,${target_libraries}/pulseaudio")
# GCC notes that it passes some arguments in another way since version 7. One compiler builds all
# code here.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

# Tests of companions also need their libraries' dependencies. A daemon under test does not, as
# tests give it their own libraries.
set(VOCASTRA_EMULATOR ${VOCASTRA_EMULATOR} -L ${target_compiler})
list(JOIN CMAKE_BUILD_RPATH ":" target_path)
set(CMAKE_CROSSCOMPILING_EMULATOR ${VOCASTRA_EMULATOR}
  -E LD_LIBRARY_PATH=${target_path}:${target_libraries}/samba:${target_libraries}/pulseaudio
  -E ESPEAK_DATA_PATH=${target_libraries}/espeak-ng-data)
