# Cross-building for 64-bit Windows with mingw-w64 (the posix threads variant,
# which gives std::thread and std::mutex):
#   cmake -S . -B build-win -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
# The programs run on Windows or under Wine (scripts/test-windows.sh).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(KV_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${KV_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${KV_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${KV_MINGW_TRIPLE}-windres)

# Libraries and headers of the target only; programs (code generators) of the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${KV_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Windows programs of the build (post-build steps, ctest) run on this machine
# through Wine, in a Wine prefix of the build directory's own.
find_program(KV_WINE64 NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(KV_WINE64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh ${KV_WINE64} ${CMAKE_BINARY_DIR}/wineprefix)
endif()
