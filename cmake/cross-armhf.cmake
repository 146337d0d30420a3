# Debian armhf (crossbuild-essential-armhf).
set(CMAKE_SYSTEM_PROCESSOR arm)
set(WS_CLIENT_CROSS_TRIPLET arm-linux-gnueabihf)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
