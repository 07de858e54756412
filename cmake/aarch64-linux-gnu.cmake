# Toolchain file for the units: Debian's g++-aarch64-linux-gnu, for AArch64 Linux with glibc.
#   cmake -DCMAKE_TOOLCHAIN_FILE=.../aarch64-linux-gnu.cmake -DZOL_AARCH64_ROOT=FOLDER ...
# ZOL_AARCH64_ROOT: a folder with the arm64 packages of POCO (and of GoogleTest, for the tests) unpacked in it, or
# the root of a unit's file system. Where qemu-aarch64 is installed, the tests run under it.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

set(ZOL_AARCH64_ROOT "" CACHE PATH "Where the libraries for AArch64 are")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZOL_AARCH64_ROOT)
set(CMAKE_FIND_ROOT_PATH ${ZOL_AARCH64_ROOT} /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(libraries ${ZOL_AARCH64_ROOT}/usr/lib/aarch64-linux-gnu ${ZOL_AARCH64_ROOT}/lib/aarch64-linux-gnu)
list(JOIN libraries : libraries)
# For what the libraries that are linked need in their turn.
set(CMAKE_EXE_LINKER_FLAGS_INIT -Wl,-rpath-link,${libraries})
set(CMAKE_SHARED_LINKER_FLAGS_INIT -Wl,-rpath-link,${libraries})

find_program(ZOL_QEMU_AARCH64 qemu-aarch64)
if(ZOL_QEMU_AARCH64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZOL_QEMU_AARCH64} -L /usr/aarch64-linux-gnu -E LD_LIBRARY_PATH=${libraries})
endif()
