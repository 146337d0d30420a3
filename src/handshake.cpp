// WebSocket opening handshake: key, expected accept, request, answer check.
#include "handshake.h"

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "tools.h"

#define LOG_UNIT "handshake"

namespace {

constexpr const char* kGuid = "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
constexpr const char* kStatusPrefix = "HTTP/1.1 101";
constexpr const char* kAcceptHeader = "Sec-WebSocket-Accept";
constexpr long kAnswerWaitSeconds = 5;
constexpr std::size_t kAnswerCapacity = 1048576;
constexpr const char* kRequestTemplate =
    "GET %s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
    "Sec-WebSocket-Key: %s\r\nSec-WebSocket-Protocol: echo\r\nSec-WebSocket-Version: 13\r\n\r\n";
// Host and path are record-sized texts, so the request always fits.
constexpr std::size_t kRequestCapacity = 1024;

struct bio_chain_free {
    void operator()(BIO* bio) const { BIO_free_all(bio); }
};
using bio_chain = std::unique_ptr<BIO, bio_chain_free>;

// The filter ends its output with a newline (and breaks long lines); keys
// and accept values carry none.
void remove_newlines(char* text) {
    char* out = text;
    for (const char* in = text; *in != '\0'; ++in)
        if (*in != '\n')
            *out++ = *in;
    *out = '\0';
}

// One read buffer for every handshake, made on first use.
char* answer_buffer() {
    static char* buffer = static_cast<char*>(std::malloc(kAnswerCapacity));
    return buffer;
}

}  // namespace

int base64_encode(const unsigned char* input, std::size_t length, std::span<char> out) {
    if (input == nullptr || out.data() == nullptr)
        return -1;
    BIO* sink = BIO_new(BIO_s_mem());
    BIO* filter = BIO_new(BIO_f_base64());
    if (sink == nullptr || filter == nullptr) {
        BIO_free(sink);
        BIO_free(filter);
        return -1;
    }
    bio_chain chain(BIO_push(filter, sink));
    if (BIO_write(chain.get(), input, static_cast<int>(length)) < 0 || BIO_flush(chain.get()) != 1)
        return -1;
    BUF_MEM* memory = nullptr;
    BIO_get_mem_ptr(chain.get(), &memory);
    if (memory == nullptr || memory->length + 1 > out.size())
        return -1;
    std::memcpy(out.data(), memory->data, memory->length);
    out[memory->length] = '\0';
    return static_cast<int>(memory->length);
}

void sec_websocket_key(char (&out)[TEXT_FIELD_SIZE]) {
    std::srand(static_cast<unsigned>(std::time(nullptr)));  // same second, same key: kept
    unsigned char material[16];
    for (unsigned char& byte : material)
        byte = static_cast<unsigned char>(std::rand() & 0xff);
    if (base64_encode(material, sizeof material, out) < 0)
        out[0] = '\0';
    remove_newlines(out);
}

int sec_websocket_accept(const char* key, char (&out)[TEXT_FIELD_SIZE]) {
    char joined[8192];
    std::snprintf(joined, sizeof joined, "%s%s", key, kGuid);
    unsigned char digest[SHA_DIGEST_LENGTH + 1] = {};
    SHA1(reinterpret_cast<const unsigned char*>(joined), std::strlen(joined), digest);
    WS_LOG("SHA1 data of accept key is %s\n", reinterpret_cast<const char*>(digest));
    if (base64_encode(digest, SHA_DIGEST_LENGTH, out) < 0)
        out[0] = '\0';
    remove_newlines(out);
    return 0;
}

int format_handshake_request(std::span<char> out, const char* path, const char* host, const char* key) {
    const int length = std::snprintf(out.data(), out.size(), kRequestTemplate, path, host, key);
    if (length < 0 || static_cast<std::size_t>(length) >= out.size())
        return -1;
    return length;
}

int check_ws_accept(const ws_record* ws, const char* answer) {
    const char* header = std::strstr(answer, kAcceptHeader);
    WS_LOG("ws_accept is %s\n", header != nullptr ? header : "(null)");
    if (header == nullptr || ws->sec_ws_accept[0] == '\0')
        return -1;  // nothing to search from, or nothing to search for: a mismatch
    return std::strstr(header, ws->sec_ws_accept) != nullptr ? 0 : -1;
}

int handshake_result(ws_record* ws) {
    timeval wait{kAnswerWaitSeconds, 0};
    const int ready = select_single(ws->sockfd, wait_for::read, &wait);
    if (ready <= 0)
        return -1;
    // with the descriptor alone in the set, a positive count means readable
    char* answer = answer_buffer();
    if (answer == nullptr)
        return -1;
    const std::size_t limit = kAnswerCapacity - 1;
    ssize_t nread;
    if (ws->is_secure == 1) {
        SSL* ssl = tls_session(*ws);
        nread = ssl != nullptr ? SSL_read(ssl, answer, static_cast<int>(limit)) : -1;
    } else {
        nread = recv(ws->sockfd, answer, limit, 0);
    }
    // a failed read counts as an empty answer; the checks below then refuse it
    answer[nread > 0 ? nread : 0] = '\0';
    WS_LOG("handshake_result is:\n%s\n", answer);
    if (nread == 0 || (nread == -1 && errno != EINTR && errno != EAGAIN)) {
        WS_LOG("handshake_result nread is %d\n", static_cast<int>(nread));
        return -1;
    }
    if (std::strncmp(answer, kStatusPrefix, std::strlen(kStatusPrefix)) != 0)
        return -1;
    if (check_ws_accept(ws, answer) != 0)
        return -1;
    WS_LOG("handshake_result is:\n%s\n", answer);
    return 1;
}

int do_handshake(ws_record* ws, const char* host, const char* path) {
    sec_websocket_key(ws->sec_ws_key);
    sec_websocket_accept(ws->sec_ws_key, ws->sec_ws_accept);
    WS_LOG("sec_ws_accept is %s\n", ws->sec_ws_accept);
    char request[kRequestCapacity];
    const int length = format_handshake_request(request, path, host, ws->sec_ws_key);
    if (length < 0)
        return -1;
    WS_LOG("handshake str is\n%s\n", request);
    ssize_t sent;
    if (ws->is_secure == 1) {
        SSL* ssl = tls_session(*ws);
        sent = ssl != nullptr ? SSL_write(ssl, request, length) : -1;
    } else {
        sent = send(ws->sockfd, request, static_cast<std::size_t>(length), MSG_NOSIGNAL);
    }
    if (sent == -1)
        return -1;
    const int result = handshake_result(ws);
    WS_LOG("handshake result is %d\n", result);
    return result;
}
