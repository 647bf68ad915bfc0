# Cross-builds the client side for Windows x86-64 with Debian's MinGW-w64 (POSIX threads
# model, package g++-mingw-w64-x86-64-posix) and runs the Windows programs under Wine:
#   cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/mingw-w64-x86_64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(QOR_MINGW_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${QOR_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QOR_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${QOR_MINGW_TRIPLET}-windres)

find_program(QOR_WINE NAMES wine wine64)
if(QOR_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${QOR_WINE})
endif()

# Programs and libraries come from the MinGW sysroot only. The header-only libraries that
# Debian ships for the build machine (Boost, fmt, spdlog) are described by the small package
# files beside this one, which put just their own include folders on the path: /usr/include
# itself holds glibc's headers and must never be seen by this compiler.
set(CMAKE_FIND_ROOT_PATH /usr/${QOR_MINGW_TRIPLET} ${CMAKE_CURRENT_LIST_DIR}/mingw-w64-packages)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Packages: ours and the staged ones first, then installed prefixes such as the SDK's own.
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
list(APPEND CMAKE_PREFIX_PATH /)
