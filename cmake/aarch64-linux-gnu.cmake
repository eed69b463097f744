# Cross-building for 64-bit Arm Linux with Debian's aarch64-linux-gnu- compilers against a
# root file system that holds the board's libraries and headers (scripts/setup makes one):
#   cmake -S . -B build-arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
# The root is LUMORA_ARM_ROOT, as a CMake variable or from the environment.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

if(NOT LUMORA_ARM_ROOT)
  if(DEFINED ENV{LUMORA_ARM_ROOT})
    set(LUMORA_ARM_ROOT "$ENV{LUMORA_ARM_ROOT}")
  else()
    set(LUMORA_ARM_ROOT /var/cache/lumora/arm64-root)
  endif()
endif()
# The compiler checks read this file again in a project of their own.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMORA_ARM_ROOT)

set(CMAKE_SYSROOT "${LUMORA_ARM_ROOT}")
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Libraries, headers and CMake packages from the root only; programs run at build time
# from the host.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
