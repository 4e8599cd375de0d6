# Cross build for Windows x64 with Debian's mingw-w64 (POSIX threads flavour,
# which carries libgomp for OpenMP). Test programs run through Wine: ctest and
# GoogleTest's test discovery call them via CMAKE_CROSSCOMPILING_EMULATOR.
#
#   cmake --preset windows   (or -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake)
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZR_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZR_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZR_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZR_MINGW_TRIPLE}-windres)

# Libraries, headers and packages come from the mingw tree only, never from the
# build machine's /usr; programs (compilers, scripts) from the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${ZR_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Header-only pieces taken from the build machine (see cmake/cross_dependencies.cmake):
# glm from its own folder, GoogleTest compiled from its Debian sources.
set(ZR_CROSS_GLM_HEADERS /usr/include/glm CACHE PATH "glm header folder used by cross builds")
set(ZR_CROSS_GTEST_SOURCES /usr/src/googletest CACHE PATH "GoogleTest sources compiled by cross builds")

set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
