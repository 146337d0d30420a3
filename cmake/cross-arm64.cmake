# Debian arm64 (crossbuild-essential-arm64).
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(WS_CLIENT_CROSS_TRIPLET aarch64-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
