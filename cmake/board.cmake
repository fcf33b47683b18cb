# Toolchain for a board, with any compiler and any sysroot:
#   BOARD_COMPILER   the prefix of its compilers' names, such as arm-linux-gnueabihf-
#   BOARD_SYSROOT    the board's headers and libraries
#   BOARD_EMULATOR   runs a program of the board here: the build makes its clips with one
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${BOARD_COMPILER}gcc)
set(CMAKE_CXX_COMPILER ${BOARD_COMPILER}g++)
set(CMAKE_SYSROOT ${BOARD_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${BOARD_EMULATOR} -L ${BOARD_SYSROOT})
# Checks of the compiler read this file too.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES BOARD_COMPILER BOARD_SYSROOT BOARD_EMULATOR)
