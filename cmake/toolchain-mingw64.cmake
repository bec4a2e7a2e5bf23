# 64-bit Windows from Linux: MinGW-w64 with POSIX threads, Wine to run what was built.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
get_filename_component(qor_tree ${CMAKE_CURRENT_LIST_DIR}/.. ABSOLUTE)
list(APPEND CMAKE_FIND_ROOT_PATH ${qor_tree}/build/deps/windows /usr/x86_64-w64-mingw32) # behind what the caller gives
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR ${qor_tree}/tools/wine-run)
