// Standard-mode session: reassembly, control frames, UTF-8, close codes.
#include "ws_message.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "the message layer must stay free of the interpreter"
#endif

namespace {

// Capacity kept between messages; a larger buffer is given back after use.
constexpr std::size_t KEEP = 4096;
constexpr std::size_t STORE_FIRST = 1024;

ws_out failed(ws_session& s, uint16_t code, std::size_t used) {
    s.fail_code = code;
    s.release = true;
    return {ws_event::fail, used, {}, code};
}

// Geometric growth bounded by max_message, never less than what the current
// frame is known to bring, so a single large frame is one allocation.
bool reserve_store(ws_session& s, std::size_t need) {
    if (need <= s.store_capacity)
        return true;
    const std::size_t doubled = std::min(std::max(s.store_capacity * 2, STORE_FIRST), s.max_message);
    const std::size_t capacity = std::max(need, doubled);
    auto* grown = static_cast<uint8_t*>(std::realloc(s.store, capacity));
    if (grown == nullptr)
        return false;
    s.store = grown;
    s.store_capacity = capacity;
    return true;
}

void release_store(ws_session& s) {
    s.release = false;
    s.store_size = 0;
    if (s.store_capacity > KEEP) {
        std::free(s.store);
        s.store = nullptr;
        s.store_capacity = 0;
    }
}

// The sequence rules: a continuation needs an open message, a new data frame
// needs none; the message's total is bounded as soon as a header shows it.
uint16_t check_header(ws_session& s) {
    const frame_head& f = s.frames.frame;
    if (is_control_opcode(f.opcode)) {
        s.control_size = 0;
        return 0;
    }
    if ((f.opcode == ws_opcode::CONTINUATION) != (s.message != 0))
        return WS_PROTOCOL_ERROR;
    if (f.opcode != ws_opcode::CONTINUATION) {
        s.message = f.opcode;
        s.utf8 = UTF8_START;
    }
    return f.length > s.max_message - s.store_size ? WS_CLOSE_TOO_BIG : 0;
}

ws_out data_piece(ws_session& s, std::span<const uint8_t> piece, bool frame_end, std::size_t used) {
    const frame_head& f = s.frames.frame;
    const bool last = frame_end && f.fin;
    if (s.message == ws_opcode::TEXT &&
        (!utf8_feed(s.utf8, piece.data(), piece.size()) || (last && !utf8_complete(s.utf8))))
        return failed(s, WS_CLOSE_BAD_DATA, used);
    std::span<const uint8_t> bytes = piece;
    // a message whose bytes all came in this piece is handed out from the input, uncopied
    if (!(s.store_size == 0 && last)) {
        if (!reserve_store(s, s.store_size + piece.size() + s.frames.left))
            return failed(s, WS_CLOSE_NO_MEMORY, used);
        if (!piece.empty() && piece.data() != s.store + s.store_size)  // else read there directly
            std::memcpy(s.store + s.store_size, piece.data(), piece.size());
        s.store_size += piece.size();
        bytes = {s.store, s.store_size};
        s.release = last;
    }
    if (!last)
        return {ws_event::none, used, {}, 0};
    const ws_event kind = s.message == ws_opcode::TEXT ? ws_event::text : ws_event::binary;
    s.message = 0;
    return {kind, used, bytes, 0};
}

ws_out close_received(ws_session& s, std::size_t used) {
    if (s.control_size == 0) {
        s.close_bits |= WS_CLOSE_RECEIVED;
        return {ws_event::close, used, {}, WS_CLOSE_NO_STATUS};
    }
    if (s.control_size == 1)
        return failed(s, WS_PROTOCOL_ERROR, used);
    const auto code = static_cast<uint16_t>(s.control[0] << 8 | s.control[1]);
    if (!ws_close_code_valid(code))
        return failed(s, WS_PROTOCOL_ERROR, used);
    utf8_state reason = UTF8_START;
    if (!utf8_feed(reason, s.control + 2, s.control_size - 2u) || !utf8_complete(reason))
        return failed(s, WS_CLOSE_BAD_DATA, used);
    s.close_bits |= WS_CLOSE_RECEIVED;
    return {ws_event::close, used, {s.control + 2, s.control_size - 2u}, code};
}

// Control payloads (125 bytes at most) are always gathered in their own
// buffer, so they can arrive between the fragments of a data message.
ws_out control_piece(ws_session& s, std::span<const uint8_t> piece, bool frame_end, std::size_t used) {
    if (!piece.empty())
        std::memcpy(s.control + s.control_size, piece.data(), piece.size());
    s.control_size = static_cast<uint8_t>(s.control_size + piece.size());
    if (!frame_end)
        return {ws_event::none, used, {}, 0};
    switch (s.frames.frame.opcode) {
    case ws_opcode::PING:
        return {ws_event::ping, used, {s.control, s.control_size}, 0};
    case ws_opcode::PONG:
        return {ws_event::pong, used, {s.control, s.control_size}, 0};
    default:
        return close_received(s, used);
    }
}

}  // namespace

bool ws_close_code_valid(uint16_t code) {
    return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) || (code >= 3000 && code <= 4999);
}

void ws_session_init(ws_session& s, std::size_t max_message) {
    std::memset(&s, 0, sizeof s);
    s.max_message = max_message;
}

void ws_session_free(ws_session& s) {
    std::free(s.store);
    std::free(s.send);
    ws_session_init(s, s.max_message);
}

ws_out ws_session_feed(ws_session& s, std::span<const uint8_t> in) {
    if (s.release)
        release_store(s);
    if (s.fail_code != 0)
        return {ws_event::fail, in.size(), {}, s.fail_code};
    if (s.close_bits & WS_CLOSE_RECEIVED)
        return {ws_event::none, in.size(), {}, 0};  // nothing counts after a close
    std::size_t used = 0;
    while (used < in.size()) {
        const frame_step f = frame_decode(s.frames, in.subspan(used));
        used += f.used;
        if (f.what == frame_event::fail)
            return failed(s, f.code, used);
        if (f.what == frame_event::need_more)
            break;
        if (f.what == frame_event::header) {
            if (const uint16_t code = check_header(s))
                return failed(s, code, used);
            if (!f.frame_end)
                continue;
        }
        const ws_out e = is_control_opcode(s.frames.frame.opcode) ? control_piece(s, f.piece, f.frame_end, used)
                                                                  : data_piece(s, f.piece, f.frame_end, used);
        if (e.what != ws_event::none)
            return e;
    }
    return {ws_event::none, used, {}, 0};
}

// ---- sending ----
namespace {

ws_framed frame_into_send(ws_session& s, uint8_t opcode, std::span<const uint8_t> payload) {
    const std::size_t need = frame_size(payload.size());
    const std::size_t keep = std::max(need, KEEP);
    if (s.send_capacity < need || s.send_capacity > 2 * keep) {
        auto* buffer = static_cast<uint8_t*>(std::realloc(s.send, keep));
        if (buffer == nullptr)
            return {{}, ws_send_error::no_memory};
        s.send = buffer;
        s.send_capacity = keep;
    }
    const std::size_t length = frame_encode({s.send, need}, opcode, payload);
    if (length == 0)
        return {{}, ws_send_error::no_random};
    return {{s.send, length}, ws_send_error::none};
}

}  // namespace

ws_framed ws_session_frame(ws_session& s, uint8_t opcode, std::span<const uint8_t> payload) {
    if (opcode != ws_opcode::TEXT && opcode != ws_opcode::BINARY && opcode != ws_opcode::PING &&
        opcode != ws_opcode::PONG)
        return {{}, ws_send_error::bad_opcode};
    const std::size_t bound = is_control_opcode(opcode) ? WS_CONTROL_MAX : SIZE_MAX - WS_HEADER_MAX;
    if (payload.size() > bound)
        return {{}, ws_send_error::too_long};
    if (!is_control_opcode(opcode) && (s.close_bits & WS_CLOSE_SENT))
        return {{}, ws_send_error::after_close};
    return frame_into_send(s, opcode, payload);
}

ws_framed ws_session_close_frame(ws_session& s, uint16_t code, std::span<const uint8_t> reason) {
    utf8_state text = UTF8_START;
    const bool empty = code == WS_CLOSE_NO_STATUS && reason.empty();
    if (!empty && (!ws_close_code_valid(code) || reason.size() > WS_CONTROL_MAX - 2 ||
                   !utf8_feed(text, reason.data(), reason.size()) || !utf8_complete(text)))
        return {{}, ws_send_error::bad_close};
    uint8_t body[WS_CONTROL_MAX];
    body[0] = static_cast<uint8_t>(code >> 8);
    body[1] = static_cast<uint8_t>(code);
    if (!reason.empty())
        std::memcpy(body + 2, reason.data(), reason.size());
    const ws_framed framed = frame_into_send(s, ws_opcode::CLOSE, {body, empty ? 0 : 2 + reason.size()});
    if (framed.error == ws_send_error::none)
        s.close_bits |= WS_CLOSE_SENT;
    return framed;
}

std::span<uint8_t> ws_session_direct(ws_session& s) {
    const bool storing = s.frames.in_payload && s.message != 0 && !is_control_opcode(s.frames.frame.opcode) &&
                         s.fail_code == 0 && !s.release && !(s.close_bits & WS_CLOSE_RECEIVED);
    if (!storing || s.store_capacity - s.store_size < s.frames.left)
        return {};
    return {s.store + s.store_size, static_cast<std::size_t>(s.frames.left)};
}

void ws_session_delivered(ws_session& s) {
    if (s.release)
        release_store(s);
}

void ws_session_release_send(ws_session& s) {
    if (s.send_capacity > KEEP) {
        std::free(s.send);
        s.send = nullptr;
        s.send_capacity = 0;
    }
}
