// WebSocket frame codec: builds client frames and reads server frame headers.
//
// The dialect is narrow on purpose: every frame built is final and masked;
// only final, extension-free frames are accepted; the 64-bit length class is
// written and read least significant byte first (see wsMakeFrame). No state,
// no I/O but the debug log, no allocation: the caller owns every buffer.
// Pure unit: it never touches the interpreter.
#pragma once

#include <cstdint>

// Values below 0x10 are opcodes; from 0xF0 they are receive-side results
// that never appear on the wire.
enum FrameType : uint32_t {
    WS_TEXT_FRAME = 0x01,
    WS_BINARY_FRAME = 0x02,
    WS_CLOSING_FRAME = 0x08,
    WS_PING_FRAME = 0x09,
    WS_PONG_FRAME = 0x0A,
    WS_EMPTY_FRAME = 0xF0,
    WS_ERROR_FRAME = 0xF1,
    WS_INCOMPLETE_FRAME = 0xF2,
};

// Longest header a built frame carries: 2 + 8 extended length + 4 key.
constexpr uint32_t WS_MAX_FRAME_HEADER = 14;
constexpr uint32_t WS_MASK_KEY_SIZE = 4;

// Builds one final, masked frame of type `frameType` (< 0x10) carrying
// `dataLength` bytes of `data` (null allowed when dataLength is 0) into
// `outFrame`, and stores the frame length (2/4/10 + 4 + dataLength) in
// *outLength.
//
// outFrame must hold dataLength + WS_MAX_FRAME_HEADER bytes and byte 1 of it
// MUST be zero on entry: the length code is OR-ed into whatever is there.
// Only that byte matters; callers need not clear the rest of the buffer.
//
// Lengths above 65535 use the 127 class as this client writes it: bytes 2-5
// the length least significant byte first, bytes 6-9 the low 32 bits of the
// address of `data`, least significant byte first.
//
// The masking key is drawn after srand(time(NULL)) (four rand() results, low
// 8 bits each), so frames built within one second share a key. Uses the
// process-wide rand() state: interpreter thread only.
//
// Bad arguments (null outFrame or outLength, frameType >= 0x10, null data with
// a non-zero length) write nothing to outFrame, set *outLength to 0 when
// outLength is usable, and log the reason; they never end the process.
void wsMakeFrame(const uint8_t* data, uint32_t dataLength, uint8_t* outFrame, uint32_t* outLength,
                 FrameType frameType);

// The same frame as wsMakeFrame, header and key only, written to `header`
// (WS_MAX_FRAME_HEADER bytes; every header byte is assigned, none OR-ed).
// Returns the header length including the key (6, 8 or 14), or 0 after
// logging when frameType >= 0x10. The key is the last WS_MASK_KEY_SIZE bytes.
// `data` is only used for the address bytes of the 127 class; pair with
// wsMaskPayload to mask the payload straight into the output.
uint32_t wsMakeFrameHeader(const uint8_t* data, uint32_t dataLength, uint8_t* header, FrameType frameType);

// dst[i] = src[i] ^ key[i % 4] for i < length. dst may equal src (masking in
// place) but must not otherwise overlap it. Masking in pieces works when every
// piece but the last is a multiple of 4 bytes long.
void wsMaskPayload(uint8_t* dst, const uint8_t* src, uint32_t length, const uint8_t* key);

// Reads the header of the frame at inputFrame, of which the caller says
// inputLength bytes are available. On success returns the opcode and sets
// *data (payload start, inside inputFrame), *datasize and *headerLength
// (2 + extended length bytes). The payload itself is not checked to be there.
//
// Returns WS_INCOMPLETE_FRAME when the header is cut short, WS_ERROR_FRAME
// for RSV bits, a non-final frame, an opcode other than 1, 2, 8, 9, 10 or a
// length that does not fit 32 bits. Failures before the length is decoded
// leave the outputs untouched; failures while decoding it set datasize 0 and
// describe a 2-byte header (10-byte for a length above 0xFFFFFFFF).
// The MASK bit is ignored and no masking key is skipped: server frames are
// read as unmasked. The 127 class is read as one little-endian 64-bit number.
// A null inputFrame or inputLength 0 is logged and gives WS_ERROR_FRAME.
FrameType wsParseInputFrame(uint8_t* inputFrame, uint32_t inputLength, uint8_t** data, uint32_t* datasize,
                            uint32_t* headerLength);

// Decodes the length field of a frame header (used by wsParseInputFrame).
// Stores the count of extended length bytes (0, 2 or 8) in extLength; on
// failure overwrites frameType with WS_INCOMPLETE_FRAME or WS_ERROR_FRAME and
// returns 0. inputFrame must hold at least 2 bytes.
uint32_t getPayloadLength(const uint8_t* inputFrame, uint32_t inputLength, uint8_t& extLength,
                          FrameType& frameType);
