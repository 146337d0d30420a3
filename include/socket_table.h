// The socket table: the descriptors the main loop waits on. Lua-free.
#pragma once

#include <cstdint>

constexpr int SOCKET_TABLE_SIZE = 1024;

// Open descriptors the main loop waits on, packed from slot 0; 0 = free.
extern int32_t socktbl[SOCKET_TABLE_SIZE];

// Slot index of fd (added, or already present), -1 when the table is full.
int sock_add(int32_t fd);
// 1 when fd was found and removed (the slots after it move down), else -1.
int sock_rem(int32_t fd);
