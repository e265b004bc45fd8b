# Cross build for 32-bit ARM boards (Debian armhf) with Debian's cross compiler:
#   apt-get install g++-arm-linux-gnueabihf
#   cmake -S . -B build/armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/armhf.cmake \
#         -DCMAKE_BUILD_TYPE=MinSizeRel -DZOLVIN_TESTS=OFF
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ZOLVIN_CROSS_TRIPLE arm-linux-gnueabihf)
set(ZOLVIN_DEB_ARCH armhf)
include(${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake)
