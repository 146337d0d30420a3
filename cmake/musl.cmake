# The module against musl (Debian's musl-tools) on x86_64. musl-gcc is C
# only; the module uses libstdc++'s headers but none of its library code
# (src/runtime.cpp), so the C driver compiles it with those headers ahead of
# musl's and links it with musl-gcc (the C driver set up for musl's start
# files, libc and loader), no C++ runtime library. TLS library and Lua headers come from the
# caller (MBEDTLS_*, LUA_INCDIR), built for musl (scripts/musl_root.sh).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_CXX_COMPILER x86_64-linux-gnu-gcc)
set(musl_triplet x86_64-linux-musl)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -dumpversion OUTPUT_VARIABLE gcc_major OUTPUT_STRIP_TRAILING_WHITESPACE)
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=include OUTPUT_VARIABLE gcc_include
                OUTPUT_STRIP_TRAILING_WHITESPACE)
set(CMAKE_CXX_FLAGS_INIT "-include ${CMAKE_CURRENT_LIST_DIR}/musl_glibc_prereq.h -nostdinc -isystem /usr/include/c++/${gcc_major} -isystem /usr/include/x86_64-linux-gnu/c++/${gcc_major} -isystem /usr/include/${musl_triplet} -isystem ${gcc_include}")
# Every link goes through musl-gcc instead of the C++ driver.
set(CMAKE_CXX_LINK_EXECUTABLE "musl-gcc <FLAGS> <CMAKE_CXX_LINK_FLAGS> <LINK_FLAGS> <OBJECTS> -o <TARGET> <LINK_LIBRARIES>")
set(CMAKE_CXX_CREATE_SHARED_LIBRARY
    "musl-gcc <CMAKE_SHARED_LIBRARY_CXX_FLAGS> <LANGUAGE_COMPILE_FLAGS> <LINK_FLAGS> <CMAKE_SHARED_LIBRARY_CREATE_CXX_FLAGS> <SONAME_FLAG><TARGET_SONAME> -o <TARGET> <OBJECTS> <LINK_LIBRARIES>")
set(CMAKE_CXX_CREATE_SHARED_MODULE
    "musl-gcc <CMAKE_SHARED_LIBRARY_CXX_FLAGS> <LANGUAGE_COMPILE_FLAGS> <LINK_FLAGS> <CMAKE_SHARED_LIBRARY_CREATE_CXX_FLAGS> -o <TARGET> <OBJECTS> <LINK_LIBRARIES>")
# Nothing of the host's glibc world: programs run on the host, the rest is
# named by the caller.
set(CMAKE_FIND_ROOT_PATH /nonexistent)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
