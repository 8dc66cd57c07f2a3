# Cross build for the board's 64-bit ARM (where long double is binary128), with
# Debian's cross compiler and the arm64 multiarch packages. Programs built here
# run on this machine under qemu-user, so the tests run too.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

# Headers and libraries of the target only; programs (cmake, python3, bash) of the host.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu /)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# CTest and gtest discovery run target programs through this; the shell-driven
# tests are handed it explicitly. No binfmt registration is needed.
find_program(PELMOR_QEMU_AARCH64 NAMES qemu-aarch64-static qemu-aarch64 REQUIRED)  # the script finds it the same way
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/qemu-aarch64-run)
