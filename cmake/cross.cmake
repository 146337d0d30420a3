# Shared part of the toolchain files cmake/cross-ARCH.cmake: Debian's cross
# compiler for WS_CLIENT_CROSS_TRIPLET, headers and libraries from the
# sysroot scripts/sysroot.sh unpacked (-DWS_CLIENT_SYSROOT=DIR/root). The
# compiler keeps its own C library; the sysroot adds OpenSSL and Lua.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_CXX_COMPILER ${WS_CLIENT_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${WS_CLIENT_CROSS_TRIPLET})
if(NOT WS_CLIENT_SYSROOT)
  set(WS_CLIENT_SYSROOT $ENV{WS_CLIENT_SYSROOT})
endif()
if(NOT IS_DIRECTORY "${WS_CLIENT_SYSROOT}/usr/lib/${WS_CLIENT_CROSS_TRIPLET}")
  message(FATAL_ERROR "no sysroot for ${WS_CLIENT_CROSS_TRIPLET}: pass -DWS_CLIENT_SYSROOT=DIR (scripts/sysroot.sh makes one)")
endif()
# try_compile projects read this file again: hand them the sysroot.
set(ENV{WS_CLIENT_SYSROOT} ${WS_CLIENT_SYSROOT})

set(CMAKE_FIND_ROOT_PATH ${WS_CLIENT_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${WS_CLIENT_SYSROOT}/usr/lib/${WS_CLIENT_CROSS_TRIPLET}/pkgconfig:${WS_CLIENT_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${WS_CLIENT_SYSROOT})

# Debian's multiarch header directory (OpenSSL's configuration header), and
# the sysroot's libraries for the ones a linked library needs in turn.
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES ${WS_CLIENT_SYSROOT}/usr/include/${WS_CLIENT_CROSS_TRIPLET})
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT
      "-Wl,-rpath-link,${WS_CLIENT_SYSROOT}/usr/lib/${WS_CLIENT_CROSS_TRIPLET}:${WS_CLIENT_SYSROOT}/lib/${WS_CLIENT_CROSS_TRIPLET}")
endforeach()
