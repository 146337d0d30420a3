// The standard-mode codec: server bytes -> session events, every row whole and
// cut in pieces of 1, 2 and 3 bytes; the UTF-8 validator's fail-fast points;
// client frames as built and masked.

#include "csprng.h"
#include "lua_fixture.h"
#include "ws_message.h"

using namespace std::literals;

namespace {

constexpr std::size_t LIMIT = 70000;  // max_message of every row

std::string A(std::size_t n) { return std::string(n, 'a'); }

// A server frame: first byte b0, the shortest length form, no mask.
std::string F(int b0, const std::string& payload) {
    std::string head{char(b0)};
    const uint64_t n = payload.size();
    const int bytes = n < 126 ? 0 : n <= 0xFFFF ? 2 : 8;
    head += char(bytes == 0 ? n : bytes == 2 ? 126 : 127);
    for (int i = bytes - 1; i >= 0; --i)
        head += char(n >> (8 * i));
    return head + payload;
}

std::string show(const ws_out& e) {
    static const char* const names[] = {"none", "text", "binary", "ping", "pong", "close", "fail"};
    std::string text = names[int(e.what)];
    if (e.code != 0)
        text.append(" ").append(std::to_string(e.code));  // not " " + ...: GCC 12 -O3 -Wrestrict
    if (e.bytes.size() > 40)
        return text + " #" + std::to_string(e.bytes.size());
    return e.bytes.empty() ? text : text + " " + std::string(e.bytes.begin(), e.bytes.end());
}

std::vector<std::string> feed_in_pieces(const std::string& wire, std::size_t piece) {
    ws_session s;
    ws_session_init(s, LIMIT);
    std::vector<std::string> events;
    for (std::size_t at = 0; at < wire.size() && (events.empty() || !events.back().starts_with("fail")); at += piece) {
        // each piece in an allocation of its own size, so the sanitizer build catches over-reads
        const std::vector<uint8_t> chunk(wire.begin() + at, wire.begin() + std::min(at + piece, wire.size()));
        std::span<const uint8_t> in(chunk);
        while (!in.empty()) {
            const ws_out e = ws_session_feed(s, in);
            in = in.subspan(std::min(e.used, in.size()));
            if (e.what == ws_event::none)
                break;
            events.push_back(show(e));
            if (e.what == ws_event::fail)
                break;
        }
    }
    ws_session_free(s);
    return events;
}

}  // namespace

TEST(WsCodec, WireRowsWholeAndInPieces) {
    const std::string ok = "\x03\xe8";
    std::vector<std::tuple<std::string, std::string, std::vector<std::string>>> rows = {
        // framing
        {"text", F(0x81, "hi"), {"text hi"}},
        {"empty text and binary", F(0x81, "") + F(0x82, ""), {"text", "binary"}},
        {"zero bytes kept", F(0x82, "\0a\0"s), {"binary \0a\0"s}},
        {"16-bit lengths", F(0x81, A(126)) + F(0x82, A(65535)), {"text #126", "binary #65535"}},
        {"64-bit length", F(0x82, A(65536)), {"binary #65536"}},
        {"longer length form than needed", "\x81\x7e\x00\x02hi"s, {"text hi"}},
        {"64-bit length with its top bit", "\x82\x7f\x80\0\0\0\0\0\0\0"s, {"fail 1002"}},
        {"masked server frame", "\x81\x82\1\2\3\4hi"s, {"fail 1002"}},
        {"back to back", F(0x81, "a") + F(0x82, "b") + F(0x81, "c"), {"text a", "binary b", "text c"}},
        // ping/pong
        {"ping payload", F(0x89, "hello") + F(0x89, ""), {"ping hello", "ping"}},
        {"ping of 125 and 126 bytes", F(0x89, A(125)) + F(0x89, A(126)), {"ping #125", "fail 1002"}},
        {"unsolicited pong", F(0x8a, "x"), {"pong x"}},
        {"ping not final", F(0x09, ""), {"fail 1002"}},
        // reserved bits
        {"rsv1", F(0x81, "a") + F(0xc1, "b"), {"text a", "fail 1002"}},
        {"rsv2 on ping", F(0xa9, ""), {"fail 1002"}},
        {"rsv3 on continuation", F(0x01, "a") + F(0x90, "b"), {"fail 1002"}},
        // fragmentation
        {"three fragments", F(0x01, "he") + F(0x00, "l") + F(0x80, "lo"), {"text hello"}},
        {"empty fragments", F(0x02, "") + F(0x00, "") + F(0x80, "x"), {"binary x"}},
        {"16- and 64-bit fragments", F(0x02, A(300)) + F(0x80, A(65536)), {"binary #65836"}},
        {"ping between fragments", F(0x01, "a") + F(0x89, "p") + F(0x80, "b"), {"ping p", "text ab"}},
        {"close between fragments", F(0x01, "a") + F(0x88, ok) + F(0x80, "b"), {"close 1000"}},
        {"continuation without start", F(0x80, "x"), {"fail 1002"}},
        {"continuation after the end", F(0x81, "a") + F(0x00, "b"), {"text a", "fail 1002"}},
        {"new message inside one", F(0x01, "a") + F(0x81, "b"), {"fail 1002"}},
        // UTF-8
        {"multibyte", F(0x81, "κόσμε \xf4\x8f\xbf\xbf"), {"text κόσμε \xf4\x8f\xbf\xbf"}},
        {"character split across fragments", F(0x01, "\xce") + F(0x80, "\xba"), {"text κ"}},
        {"fails before the frame's end", "\x81\x05a\xf5"s, {"fail 1007"}},
        {"fails inside an unfinished message", F(0x01, "\xe0\x80"), {"fail 1007"}},
        {"valid prefix waits", F(0x01, "\xe0\xa0"), {}},
        {"cut at the message end", F(0x01, "\xe2") + F(0x80, "\x82"), {"fail 1007"}},
        {"surrogate", F(0x81, "\xed\xa0\x80"), {"fail 1007"}},
        {"binary is not checked", F(0x82, "\xff"), {"binary \xff"}},
        // close handling
        {"empty close", F(0x88, ""), {"close 1005"}},
        {"close code and reason", F(0x88, ok + "ok"), {"close 1000 ok"}},
        {"one-byte close", F(0x89, ok) + F(0x88, "\x03"), {"ping \x03\xe8", "fail 1002"}},
        {"reason not UTF-8", F(0x88, ok + "\xc0\xaf"), {"fail 1007"}},
        {"nothing counts after close", F(0x88, ok) + F(0x81, "a") + "\xff", {"close 1000"}},
        {"close of 126 bytes", F(0x88, ok + A(124)), {"fail 1002"}},
        // limits
        {"at max_message", F(0x82, A(LIMIT)), {"binary #70000"}},
        {"over, refused at the header", "\x82\x7f\0\0\0\0\0\x01\x11\x71"s, {"fail 1009"}},
        {"fragments over", F(0x02, A(40000)) + F(0x80, A(30001)), {"fail 1009"}},
    };
    for (const int opcode : {3, 4, 5, 6, 7, 11, 12, 13, 14, 15})
        rows.push_back({"reserved opcode " + std::to_string(opcode), F(0x80 | opcode, ""), {"fail 1002"}});
    for (const int code : {0, 999, 1004, 1005, 1006, 1015, 1016, 2999, 5000, 65535})
        rows.push_back({"close code " + std::to_string(code), F(0x88, {char(code >> 8), char(code)}), {"fail 1002"}});
    for (const int code : {1001, 1003, 1007, 1014, 3000, 4999})
        rows.push_back({"close code " + std::to_string(code), F(0x88, {char(code >> 8), char(code)}),
                        {"close " + std::to_string(code)}});
    for (const auto& [name, wire, events] : rows)
        for (const std::size_t piece : {wire.size(), std::size_t{1}, std::size_t{2}, std::size_t{3}})
            EXPECT_EQ(feed_in_pieces(wire, piece), events) << name << ", pieces of " << piece;
}

TEST(WsCodec, BytesNeededWholeFrameUncopiedAndStoreGivenBack) {
    ws_session s;
    ws_session_init(s, LIMIT);
    const std::string two = F(0x82, A(5000)) + F(0x02, A(30000)) + F(0x80, "b");
    const std::span<const uint8_t> in(reinterpret_cast<const uint8_t*>(two.data()), two.size());
    EXPECT_EQ(ws_session_feed(s, in).bytes.data(), in.data() + 4);  // whole in the input: not copied
    EXPECT_EQ(ws_session_feed(s, in.subspan(5004, 3)).used, 3u);
    EXPECT_EQ(frame_bytes_needed(s.frames), 1u);  // the 16-bit length's second byte
    EXPECT_EQ(ws_session_feed(s, in.subspan(5007, 2)).what, ws_event::none);
    EXPECT_EQ(frame_bytes_needed(s.frames), 29999u);
    EXPECT_EQ(show(ws_session_feed(s, in.subspan(5009))), "binary #30001");
    EXPECT_GE(s.store_capacity, 30001u);
    EXPECT_EQ(ws_session_feed(s, {}).what, ws_event::none);
    EXPECT_EQ(s.store_capacity, 0u);
    ws_session_free(s);
}

TEST(Utf8, FailsAtTheFirstByteThatProvesIt) {
    const std::tuple<std::string, int, bool> rows[] = {  // bytes, first bad byte or -1, complete
        {"κόσμε" + A(20) + "\xe2\x82\xac", -1, true}, {A(17) + "\xf0\x90\x80", -1, false},
        {"\xce\xba\xe1\xbd\xb9\xcf\x83\xce\xbc\xce\xb5\xed\xa0\x80", 12, false}, {A(26) + "\x80" + A(20), 26, false},
        {"\xc0\xaf", 0, false}, {"\xc1\xbf", 0, false}, {"\xe0\x9f\xbf", 1, false}, {"\xf0\x8f\xbf\xbf", 1, false},
        {"\xf4\x90\x80\x80", 1, false}, {"\xf5", 0, false}, {"\xff", 0, false}, {"\xe2\x28", 1, false},
        {"\xf1\x80\x80\xc0", 3, false}, {"\xdf\xbf\xee\x80\x80\xf3\xbf\xbf\xbf", -1, true},
    };
    for (const auto& [text, bad, complete] : rows) {
        const auto* bytes = reinterpret_cast<const uint8_t*>(text.data());
        utf8_state byte_by_byte = UTF8_START, whole = UTF8_START;
        for (std::size_t i = 0; i < text.size(); ++i)
            ASSERT_EQ(utf8_feed(byte_by_byte, bytes + i, 1), bad < 0 || int(i) < bad) << text << " at " << i;
        EXPECT_EQ(utf8_feed(whole, bytes, text.size()), bad < 0) << text;
        EXPECT_EQ(utf8_complete(whole), complete) << text;
    }
}

TEST(WsCodec, ClientHeadersMaskingAndSends) {
    const uint8_t key[4] = {0xA1, 0xB2, 0xC3, 0xD4};
    for (const auto& [fin, opcode, length, head] :
         {std::tuple{true, 1, 0ull, "\x81\x80"s}, {true, 2, 125ull, "\x82\xfd"s}, {true, 9, 126ull, "\x89\xfe\x00\x7e"s},
          {true, 1, 65535ull, "\x81\xfe\xff\xff"s}, {false, 0, 1ull << 40, "\x00\xff\0\0\x01\0\0\0\0\0"s}}) {
        uint8_t out[WS_HEADER_MAX];
        const std::size_t n = frame_header_encode(out, fin, uint8_t(opcode), length, key);
        EXPECT_EQ(std::string(out, out + n), head + "\xa1\xb2\xc3\xd4") << length;
    }
    uint8_t src[80], dst[80];
    for (std::size_t i = 0; i < sizeof src; ++i)
        src[i] = uint8_t(i * 7);
    for (std::size_t offset = 0; offset < 4; ++offset)
        for (std::size_t length = 0; length < 72; ++length) {
            frame_mask(dst, src + 1, length, key, offset);
            for (std::size_t i = 0; i < length; ++i)
                ASSERT_EQ(dst[i], src[1 + i] ^ key[(offset + i) % 4]) << offset << " " << length << " " << i;
        }
    ws_session s;
    ws_session_init(s, LIMIT);
    auto unmasked = [](ws_framed f) {  // header bytes as sent, then the payload unmasked
        if (f.error != ws_send_error::none)
            return "error " + std::to_string(int(f.error));
        const std::size_t head = f.frame.size() < 131 ? 6 : 8;
        std::string text(f.frame.begin(), f.frame.begin() + head - 4);
        for (std::size_t i = head; i < f.frame.size(); ++i)
            text += char(f.frame[i] ^ f.frame[head - 4 + (i - head) % 4]);
        return text;
    };
    const std::string hello = "hello", big = A(200);
    const auto* h = reinterpret_cast<const uint8_t*>(hello.data());
    std::string first = unmasked(ws_session_frame(s, ws_opcode::TEXT, {h, 5}));
    EXPECT_EQ(first, "\x81\x85hello");
    uint8_t keys[2][4];
    for (auto& k : keys)
        std::memcpy(k, ws_session_frame(s, ws_opcode::BINARY, {h, 5}).frame.data() + 2, 4);
    EXPECT_NE(std::memcmp(keys[0], keys[1], 4), 0);
    EXPECT_EQ(unmasked(ws_session_frame(s, ws_opcode::BINARY, {reinterpret_cast<const uint8_t*>(big.data()), 200})),
              "\x82\xfe\x00\xc8"s + big);
    EXPECT_EQ(unmasked(ws_session_frame(s, ws_opcode::PING, {reinterpret_cast<const uint8_t*>(big.data()), 126})),
              "error 2");
    EXPECT_EQ(unmasked(ws_session_frame(s, ws_opcode::CLOSE, {})), "error 1");
    for (const auto& [code, reason, framed] :
         {std::tuple{999, ""s, "error 3"s}, {1005, "x"s, "error 3"s}, {1000, A(124), "error 3"s},
          {1000, "\xff"s, "error 3"s}, {1005, ""s, "\x88\x80"s}, {4999, "bye"s, "\x88\x85\x13\x87" "bye"s}})
        EXPECT_EQ(unmasked(ws_session_close_frame(s, uint16_t(code), {reinterpret_cast<const uint8_t*>(reason.data()),
                                                                      reason.size()})), framed) << code;
    EXPECT_EQ(unmasked(ws_session_frame(s, ws_opcode::TEXT, {h, 5})), "error 4");
    EXPECT_EQ(unmasked(ws_session_frame(s, ws_opcode::PONG, {h, 5})), "\x8a\x85hello");
    ws_session_free(s);
}
