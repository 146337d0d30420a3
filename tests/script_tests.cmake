# Tests at the script level: the examples and the demo against the local
# default peer, the peer itself, the install into a staging directory, and
# the rockspec. Run with the interpreter the build is for (lua5.1, or luajit
# for -DWS_CLIENT_LUAJIT=ON).
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

add_test(NAME install_destdir_${WS_CLIENT_LUA_BIN}
         COMMAND ${script_tests_dir}/package_test.sh install ${PROJECT_BINARY_DIR} ${WS_CLIENT_INSTALL_CMOD}
                 ${WS_CLIENT_INTERPRETER})
set_tests_properties(install_destdir_${WS_CLIENT_LUA_BIN} PROPERTIES TIMEOUT 120)

# The rock is built for Lua 5.1 only: one build of it is enough.
find_program(WS_CLIENT_LUAROCKS luarocks)
if(WS_CLIENT_LUAROCKS AND NOT WS_CLIENT_LUAJIT)
  add_test(NAME rockspec
           COMMAND ${script_tests_dir}/package_test.sh rock ${PROJECT_SOURCE_DIR} ${WS_CLIENT_INTERPRETER})
  set_tests_properties(rockspec PROPERTIES TIMEOUT 600)
endif()
