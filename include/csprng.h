// Random bytes for masking keys and handshake keys, from the kernel's CSPRNG:
// getrandom(), or /dev/urandom where the kernel has no getrandom. Never
// rand(). Small draws come from a buffered pool, so a key per frame costs a
// copy, not a system call. Lua-free.
#pragma once

#include <cstddef>
#include <cstdint>

// Fills out[0, length). 0 on success; -1 with errno set when neither source
// gave the bytes (out is then unspecified: never use it as a key).
int csprng_fill(uint8_t* out, std::size_t length);
