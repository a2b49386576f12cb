# Cross build for 64-bit Windows with Debian's MinGW-w64; what it builds runs
# under Wine (scripts/wine-run), so ctest works as it does natively.
#   cmake -S . -B build-windows -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(PLEXA_MINGW_TRIPLE x86_64-w64-mingw32)

# The -posix flavour: its libstdc++ has std::thread and std::mutex.
set(CMAKE_C_COMPILER ${PLEXA_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${PLEXA_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${PLEXA_MINGW_TRIPLE}-windres)

# Target headers and libraries (zlib from libz-mingw-w64-dev) only from the
# MinGW root, programs only from the host.
set(CMAKE_FIND_ROOT_PATH /usr/${PLEXA_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Static runtime (libgcc, libstdc++, winpthread): the programs run in a Wine
# prefix, or are copied to a Windows machine, without the compiler's DLLs.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -static)
# libz.a, not the import library that CMake would prefer.
set(ZLIB_USE_STATIC_LIBS ON)

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine-run)
