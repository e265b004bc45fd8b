# Cross build for 64-bit ARM boards (Debian arm64) with Debian's cross compiler:
#   apt-get install g++-aarch64-linux-gnu
#   cmake -S . -B build/arm64 -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/arm64.cmake \
#         -DCMAKE_BUILD_TYPE=MinSizeRel -DZOLVIN_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(ZOLVIN_CROSS_TRIPLE aarch64-linux-gnu)
set(ZOLVIN_DEB_ARCH arm64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
