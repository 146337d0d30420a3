// A fresh interpreter with the module loaded, for running script snippets.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "luacli.h"

class LuaTest : public ::testing::Test {
protected:
    lua_State* L = nullptr;

    void SetUp() override;
    void TearDown() override;

    // Runs `code`; returns "" on success, else the error message.
    std::string run(const std::string& code);
    // Registers a C function as a global for the snippets to call.
    void expose(const char* name, lua_CFunction function);
    std::string global_string(const char* name);
    double global_number(const char* name);
};

// Runs a snippet and fails the test with the interpreter's message.
#define LUA_OK(code) ASSERT_EQ(run(code), "")
