# Debian s390x (crossbuild-essential-s390x).
set(CMAKE_SYSTEM_PROCESSOR s390x)
set(WS_CLIENT_CROSS_TRIPLET s390x-linux-gnu)
include(${CMAKE_CURRENT_LIST_DIR}/cross.cmake)
