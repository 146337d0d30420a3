// A standard-mode WebSocket session: server bytes in, messages and control
// events out; client messages framed for sending. Lua-free, no I/O.
//
// The session is a plain record (no destructor: it lives in a table beside
// the script's record and is released explicitly):
//     ws_session s;  ws_session_init(s, max_message);  ...  ws_session_free(s);
//
// Receiving. Hand over each read, cut anywhere; bytes arriving one at a time
// work, since partial headers and unfinished messages are kept in the session:
//     while (!in.empty()) {
//         ws_out e = ws_session_feed(s, in);
//         in = in.subspan(e.used);
//         switch (e.what) { ... }   // none: everything was taken
//     }
// e.bytes is valid until the next call on the session (ws_session_delivered
// after a text or binary event gives a large store back at once). It points into `in`
// for a whole unfragmented message that arrived in one piece; otherwise into
// the session's store (data messages) or control buffer.
//   text/binary  e.bytes: the whole payload, zero bytes included; text is valid UTF-8
//   ping, pong   e.bytes: the payload (the layer above answers a ping with a pong
//                carrying the same bytes, at once)
//   close        e.code and reason e.bytes (code 1005 when the frame had no
//                payload); WS_CLOSE_RECEIVED is set and later bytes are ignored
//   fail         e.code: the close code to send before closing the connection:
//                1002 protocol error, 1007 invalid UTF-8, 1009 message over
//                max_message, 1011 out of memory (never sent by a server's
//                fault); later calls fail again with the same code
//
// Sending. ws_session_frame frames one whole message into the session's send
// buffer with a fresh masking key; frame_encode (ws_frame.h) does the same
// into a buffer the caller owns. A close framed here sets WS_CLOSE_SENT; data
// frames are refused after it.
//
// max_message bounds a data message (all its fragments). Default proposal
// for the options key: WS_MAX_MESSAGE_DEFAULT, 1 MiB. A message costs its
// store (up to twice its size while fragments arrive, exactly its size for a
// single frame) plus the script's string: a few MiB per connection at the
// default, which a device with tens of MiB can afford for several
// connections, and near the designed dialect's own cap of about 1 MiB, so a
// script moving to the standard mode keeps its memory profile. Scripts that
// expect larger messages raise it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <type_traits>

#include "utf8.h"
#include "ws_frame.h"

constexpr std::size_t WS_MAX_MESSAGE_DEFAULT = std::size_t{1} << 20;

constexpr uint16_t WS_CLOSE_NORMAL = 1000;
constexpr uint16_t WS_CLOSE_NO_STATUS = 1005;  // reported for an empty close frame, never sent
constexpr uint16_t WS_CLOSE_BAD_DATA = 1007;
constexpr uint16_t WS_CLOSE_TOO_BIG = 1009;
constexpr uint16_t WS_CLOSE_NO_MEMORY = 1011;

// close_bits
constexpr uint8_t WS_CLOSE_RECEIVED = 1;
constexpr uint8_t WS_CLOSE_SENT = 2;

enum class ws_event : uint8_t { none, text, binary, ping, pong, close, fail };

struct ws_out {
    ws_event what;
    std::size_t used;  // bytes of the input taken up to and including this event
    std::span<const uint8_t> bytes;
    uint16_t code;
};

struct ws_session {
    frame_decoder frames;
    std::size_t max_message;
    uint8_t* store;  // reassembly of the current data message (heap, grows with it)
    std::size_t store_size, store_capacity;
    uint8_t* send;  // framed outgoing message (heap, sized to the last one)
    std::size_t send_capacity;
    utf8_state utf8;          // of the current text message
    uint8_t message;          // opcode of the unfinished data message, 0 if none
    bool stored;              // the current message goes through the store
    bool release;             // the store's last message has been handed out
    uint8_t close_bits;
    uint16_t fail_code;       // non-zero: the session has failed
    uint8_t control_size;
    uint8_t control[WS_CONTROL_MAX];
};
static_assert(std::is_trivially_destructible_v<ws_session> && std::is_trivially_copyable_v<ws_session>);

// A fresh session; takes no memory until a message needs it.
void ws_session_init(ws_session& s, std::size_t max_message);
// Gives back the store and the send buffer; the session may be initialised again.
void ws_session_free(ws_session& s);

// Takes bytes of `in` up to and including the next event (see above).
ws_out ws_session_feed(ws_session& s, std::span<const uint8_t> in);

enum class ws_send_error : uint8_t { none, bad_opcode, too_long, bad_close, after_close, no_memory, no_random };

struct ws_framed {
    std::span<const uint8_t> frame;  // valid until the next ws_session_frame call
    ws_send_error error;
};

// One final frame of `opcode` (text, binary, ping, pong) carrying payload.
// bad_opcode: any other opcode (closes go through ws_session_close_frame);
// too_long: a control payload over 125 bytes (or a payload whose frame size
// would not fit size_t); after_close: data after a close.
// Text is not checked for UTF-8 here (utf8.h does that where it is wanted).
ws_framed ws_session_frame(ws_session& s, uint8_t opcode, std::span<const uint8_t> payload);
// A close frame with `code` and `reason`; WS_CLOSE_NO_STATUS gives an empty
// close frame (the answer to one). bad_close: a code that may not be sent
// (outside 1000-1003, 1007-1014, 3000-4999) or a reason that is over 123
// bytes, not UTF-8, or given with no code.
ws_framed ws_session_close_frame(ws_session& s, uint16_t code, std::span<const uint8_t> reason);
// Where the rest of the data frame being stored can be read straight into
// the store: feeding those bytes from there takes them without a copy. Empty
// when no frame is being stored or the store has no room reserved for it.
std::span<uint8_t> ws_session_direct(ws_session& s);
// The message handed out last is done with: a store above the size kept
// between messages is given back now rather than at the next feed.
void ws_session_delivered(ws_session& s);
// Gives back a send buffer above the size kept between messages, once its
// frame has been written out.
void ws_session_release_send(ws_session& s);

// Whether a close code may appear on the wire.
bool ws_close_code_valid(uint16_t code);
