# Tests at the script level: the examples and the demo against the local
# default peer, the peer itself, the install under a prefix, and
# the rock. Run with the interpreter the build is for (lua5.1, lua5.2,
# lua5.3, lua5.4 or luajit, after WS_CLIENT_LUA).
find_program(WS_CLIENT_INTERPRETER ${WS_CLIENT_LUA_BIN} REQUIRED)
set(script_tests_dir ${CMAKE_CURRENT_LIST_DIR})

# The built module loaded by the build's interpreter.
add_test(NAME load_module_${WS_CLIENT_LUA_BIN}
         COMMAND ${WS_CLIENT_INTERPRETER} ${script_tests_dir}/lua/load_module.lua)
set_tests_properties(load_module_${WS_CLIENT_LUA_BIN} PROPERTIES
  ENVIRONMENT "LUA_CPATH=${PROJECT_BINARY_DIR}/?.so" TIMEOUT 60)

add_test(NAME examples_${WS_CLIENT_LUA_BIN}
         COMMAND ${script_tests_dir}/examples_test.sh ${WS_CLIENT_INTERPRETER} ${PROJECT_BINARY_DIR})
set_tests_properties(examples_${WS_CLIENT_LUA_BIN} PROPERTIES TIMEOUT 300)

# ws_client.easy, the companion module, through the core against the local peer.
add_test(NAME easy_${WS_CLIENT_LUA_BIN}
         COMMAND ${PROJECT_SOURCE_DIR}/scripts/with_peer.sh -t 120 -- ${WS_CLIENT_INTERPRETER}
                 ${script_tests_dir}/lua/easy_test.lua)
set_tests_properties(easy_${WS_CLIENT_LUA_BIN} PROPERTIES TIMEOUT 150
  ENVIRONMENT "LUA_CPATH=${PROJECT_BINARY_DIR}/?.so;LUA_PATH=${PROJECT_SOURCE_DIR}/src/?.lua")

# ws_client.easy under another loop: each example exits 0 when every line came
# back; skipped where the interpreter cannot load that library.
foreach(example luasocket_select:socket cqueues_poll:cqueues)
  string(REGEX REPLACE ":.*" "" script ${example})
  string(REGEX REPLACE ".*:" "" example ${example})
  add_test(NAME easy_${script}_${WS_CLIENT_LUA_BIN} COMMAND sh -c "$0 -l $1 /dev/null 2>/dev/null || exit 77; exec $2 -t 60 -- $0 $3"
    ${WS_CLIENT_INTERPRETER} ${example} ${PROJECT_SOURCE_DIR}/scripts/with_peer.sh ${PROJECT_SOURCE_DIR}/examples/easy/${script}.lua)
  set_tests_properties(easy_${script}_${WS_CLIENT_LUA_BIN} PROPERTIES TIMEOUT 90 SKIP_RETURN_CODE 77
    ENVIRONMENT "LUA_CPATH=${PROJECT_BINARY_DIR}/?.so\;\;;LUA_PATH=${PROJECT_SOURCE_DIR}/src/?.lua\;\;")
endforeach()

add_test(NAME install_${WS_CLIENT_LUA_BIN}
         COMMAND ${script_tests_dir}/package_test.sh install ${PROJECT_BINARY_DIR} ${ws_client_cmod}
                 ${WS_CLIENT_INTERPRETER} ${ws_client_lmod})
set_tests_properties(install_${WS_CLIENT_LUA_BIN} PROPERTIES TIMEOUT 120)

# The release tarball and the rock built from it, for every Lua luarocks
# can target: once, from the 5.1 build.
find_program(WS_CLIENT_LUAROCKS luarocks)
if(WS_CLIENT_LUAROCKS AND WS_CLIENT_LUA STREQUAL "5.1")
  add_test(NAME rockspec
           COMMAND ${script_tests_dir}/package_test.sh rock ${PROJECT_SOURCE_DIR})
  set_tests_properties(rockspec PROPERTIES TIMEOUT 600)
endif()

# On the device the module needs the C and TLS libraries only.
add_test(NAME module_dependencies COMMAND ${script_tests_dir}/module_deps.sh $<TARGET_FILE:ws_client>)

# With WS_CLIENT_EXPECT_TLS_LIBRARY (a file name): the module in the
# interpreter maps that TLS library, not another version on the search path.
set(WS_CLIENT_EXPECT_TLS_LIBRARY "" CACHE STRING "File name of the TLS library the loaded module must map")
if(WS_CLIENT_EXPECT_TLS_LIBRARY)
  add_test(NAME tls_library_${WS_CLIENT_LUA_BIN}
           COMMAND ${WS_CLIENT_INTERPRETER} ${script_tests_dir}/lua/tls_library.lua ${WS_CLIENT_EXPECT_TLS_LIBRARY})
  set_tests_properties(tls_library_${WS_CLIENT_LUA_BIN} PROPERTIES
    ENVIRONMENT "LUA_CPATH=${PROJECT_BINARY_DIR}/?.so" TIMEOUT 60)
endif()

# Standard mode against two independent servers, python3-websockets and Node's ws: one entry each.
foreach(server python node)
  add_test(NAME interop_${server}_${WS_CLIENT_LUA_BIN}
           COMMAND ${WS_CLIENT_INTERPRETER} ${script_tests_dir}/lua/interop_test.lua ${server})
  set_tests_properties(interop_${server}_${WS_CLIENT_LUA_BIN} PROPERTIES TIMEOUT 120
    ENVIRONMENT "LUA_CPATH=${PROJECT_BINARY_DIR}/?.so;PEERS=${script_tests_dir}/peers;NODE_PATH=/usr/share/nodejs")
endforeach()
