# What Debian's cross toolchains have in common: the compiler is named after
# the target triple, and the target's C library and headers live under
# /usr/<triple>. Included by the per-architecture files.
set(CMAKE_C_COMPILER ${ZOLVIN_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${ZOLVIN_CROSS_TRIPLE}-g++)
set(CMAKE_FIND_ROOT_PATH /usr/${ZOLVIN_CROSS_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
