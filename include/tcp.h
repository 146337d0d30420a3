// TCP client: connect (plain or TLS with a client certificate), close, send,
// and the receive path with HTTP chunked decoding (the decoder itself is the
// pure core in chunked.h).
#pragma once

#include "lua_api.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

#include "ws_client.h"

// Every delivery fits in this many bytes, the zero terminator included.
constexpr std::size_t TCP_RECV_BUFFER_SIZE = 0x100000;

// A blocking stream socket for the record; the record, or null.
tcp_record* tcp_init(lua_State* L, tcp_record* record);
// 1 connected; -1 failed, already reported (on_error, on_close) and closed.
// The record's object must be on the stack: it is kept alive through the
// callbacks from there.
int do_tcp_connect(lua_State* L, tcp_record* record);
// The tail of a connect that succeeded (object at 1): enters the descriptor
// in the socket table, marks the record open, registers the object, calls
// on_open and pushes what is registered then; nil with on_error when the
// table is full (the descriptor is closed; the record keeps its number and
// status). Results pushed.
int tcp_opened(lua_State* L, tcp_record* record);
// tcp_connect's part with nonblocking = true (object at 1, options
// registered): registers the object, starts the set-up the loop drives and
// returns the object. Every failure, and on_open, come from the loop.
int tcp_connect_loop(lua_State* L, tcp_record* record);
// The kind's step: advances the set-up, or writes what sends left queued.
int tcp_step(lua_State* L, int32_t fd);
// Frees the TLS session, closes the descriptor, marks the registered object
// closed and calls on_close(reason). The record's object must be on the
// stack (or otherwise reachable until this returns).
void tcp_do_close(lua_State* L, tcp_record* record, const char* reason);
// Writes data up to its first zero byte once; the write's result, or -1.
// As with do_tcp_connect, the record's object must be on the stack.
int32_t tcp_send(lua_State* L, tcp_record* record, const char* data);
// Reads what the peer sends on fd (plain: until it stops, decoding a chunked
// response; TLS: one read), delivers it to on_message and returns the read's
// result; *err gets errno as it stood after the read.
int32_t tcp_recv(lua_State* L, int32_t fd, int* err);

// One plain read on the stream socket fd (see transport.h), retried while
// interrupted.
ssize_t safe_read(int fd, void* buffer, std::size_t length);
// Reads until three empty reads in a row, a failing read or a nearly full
// destination; dest gets the text (up to the first zero byte of the data) and
// a terminator, *text_length its length when asked. Returns every byte read.
int32_t full_read(int fd, char* dest, std::size_t capacity, std::size_t* text_length = nullptr);
