# Shared part of the MinGW toolchain files; expects UTILS_MINGW_TRIPLET.
set(CMAKE_C_COMPILER ${UTILS_MINGW_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${UTILS_MINGW_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${UTILS_MINGW_TRIPLET}-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${UTILS_MINGW_TRIPLET})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Custom-action code must not depend on libgcc, libstdc++ or libwinpthread DLLs:
# the installer loads the DLL from a temporary folder where none of them exist.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
