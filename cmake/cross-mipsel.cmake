# Debian mipsel (crossbuild-essential-mipsel).
set(CMAKE_SYSTEM_PROCESSOR mipsel)
set(WS_CLIENT_CROSS_TRIPLET mipsel-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
