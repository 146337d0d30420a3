// The opt-in protections against in-process peers: verification and server
// name with certificates made now; the five unbounded waits against a stall.
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>

#include "handshake.h"
#include "lua_fixture.h"

using ::testing::ContainsRegex;

namespace {

// A CA; certificates it signed: "good" (127.0.0.1 and localhost), "named"
// (localhost only), "old" (expired in 2020); the CA hashed into "cas"; and
// the self-signed client/other of peers::certificates.
const std::string& dir() {
    static const peers::certificates made;
    static const std::string path = made.dir.string() + "/";
    static const int status = std::system(("cd " + path + R"( && o() { openssl "$@" >/dev/null 2>&1; } &&
      o req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=ca -keyout ca.key -out ca.crt &&
      for n in good named old; do o req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=$n -keyout $n.key -out $n.csr || exit 1; done &&
      echo subjectAltName=IP:127.0.0.1,DNS:localhost >good.ext && echo subjectAltName=DNS:localhost >named.ext &&
      for n in good named; do o x509 -req -in $n.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -extfile $n.ext -out $n.crt || exit 1; done &&
      printf '[ca]\ndefault_ca=d\n[d]\ndatabase=db\nnew_certs_dir=.\nserial=sn\ndefault_md=sha256\npolicy=p\n[p]\ncommonName=supplied\n' >ca.cnf &&
      : >db && echo 03 >sn && o ca -batch -config ca.cnf -cert ca.crt -keyfile ca.key -in old.csr -out old.crt \
        -startdate 20200101000000Z -enddate 20200102000000Z -extfile good.ext &&
      mkdir cas && cp ca.crt cas && o rehash cas)").c_str());
    EXPECT_EQ(status, 0) << "certificates";
    return path;
}

// One connection: a TLS handshake when `cert` names one (the server name the
// client sent kept in `sni`), the WebSocket upgrade if asked, then `bytes`
// (half of one TLS record of them over TLS), then `stall_ms` of dropping what
// comes (deaf: of not reading at all, with a small window), then the close.
struct stall_peer {
    uint16_t port = 0;
    int listener = peers::listen_loopback(-1, &port);
    std::string sni = "-";  // "-": no handshake done, "": none sent
    std::thread thread;

    stall_peer(bool upgrade, std::string bytes, int stall_ms, std::string cert = "", bool deaf = false) {
        const int small = 4096;
        if ((deaf && setsockopt(listener, SOL_SOCKET, SO_RCVBUF, &small, sizeof small) != 0) || listen(listener, 1) != 0)
            ADD_FAILURE() << "listen";
        thread = std::thread([=, this] { serve(upgrade, bytes, stall_ms, cert, deaf); });
    }
    void serve(bool upgrade, const std::string& bytes, int stall_ms, const std::string& cert, bool deaf) {
        sigset_t pipe;  // a client gone mid-handshake gives EPIPE here, not a signal to the process
        sigemptyset(&pipe), sigaddset(&pipe, SIGPIPE), pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        const int fd = peers::wait_readable(listener, std::chrono::seconds(5)) ? accept(listener, nullptr, nullptr) : -1;
        SSL_CTX* ctx = cert.empty() ? nullptr : SSL_CTX_new(TLS_server_method());
        SSL* ssl = ctx != nullptr ? SSL_new(ctx) : nullptr;
        if (ssl != nullptr) {
            SSL_CTX_set_num_tickets(ctx, 0);  // a lone ticket would wake the client for nothing
            SSL_use_certificate_file(ssl, (dir() + cert + ".crt").c_str(), SSL_FILETYPE_PEM);
            SSL_use_PrivateKey_file(ssl, (dir() + cert + ".key").c_str(), SSL_FILETYPE_PEM);
            SSL_set_fd(ssl, fd);
            const char* name = SSL_accept(ssl) == 1 ? SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name) : "-";
            sni = name != nullptr ? name : "";
            SSL_set0_wbio(ssl, BIO_new(BIO_s_mem()));  // records go out by hand from here on
        }
        char sink[65536];
        auto put = [&](const std::string& text, bool cut) {  // cut: half of it (over TLS: of its one record)
            const char* at = text.data();
            long size = long(text.size());
            if (ssl != nullptr && SSL_write(ssl, at, int(size)) >= 0)
                at = sink, size = std::max(BIO_read(SSL_get_wbio(ssl), sink, sizeof sink), 0);
            send(fd, at, std::size_t(cut ? size / 2 : size), MSG_NOSIGNAL);
        };
        std::string request;
        for (char c; upgrade && request.find("\r\n\r\n") == std::string::npos; request += c)
            if ((ssl != nullptr ? SSL_read(ssl, &c, 1) : recv(fd, &c, 1, 0)) != 1)
                break;
        char key[TEXT_FIELD_SIZE] = "", accept[TEXT_FIELD_SIZE];
        std::sscanf(request.c_str() + std::min(request.find("Key: ") + 5, request.size()), "%24s", key);
        sec_websocket_accept(key, accept);
        if (upgrade)
            put("HTTP/1.1 101 Switching Protocols\r\nSec-WebSocket-Accept: " + std::string(accept) + "\r\n\r\n", false);
        usleep(100000);  // the bytes arrive in a read of their own
        put(bytes, ssl != nullptr);
        for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(stall_ms);
             fd >= 0 && std::chrono::steady_clock::now() < end;) {
            pollfd watched{fd, short(deaf ? 0 : POLLIN), 0};
            if (poll(&watched, 1, 10) == 1 && recv(fd, sink, sizeof sink, 0) == 0)
                break;  // the client gave up
        }
        SSL_free(ssl), SSL_CTX_free(ctx), close(fd);
    }
    const std::string& finish() { return thread.joinable() ? (thread.join(), sni) : sni; }
    ~stall_peer() { finish(), close(listener); }
};

class ProtectTest : public SocketTest {
protected:
    void SetUp() override {
        SocketTest::SetUp();
        LUA_OK("certs = " + quoted(dir()));
        LUA_OK(R"(
            function tls_opts(port, extra)
              return tcp_opts(port, { is_secure = 1, crt = certs .. "client.crt", prikey = certs .. "client.key" }, extra)
            end
            function ws_opts(url, port, extra) return tcp_opts(port, { type = 0, url = url, timeout = 2 }, extra) end
            t0 = now()
            local base = note  -- blocked: from t0 to the first event after on_open
            function note(text) if text ~= "open" and not blocked then blocked = now() - t0 end base(text) end
            function run_loop()
              local u = ws.udp_connect(ws.udp_new(), { type = 2, on_message = function() udp_served = true end })
              ws.udp_sendto(ws.udp_connect(ws.udp_new(), { type = 2 }), "other socket", "127.0.0.1", bind_loopback(u))
              t0 = now()
              pcall(ws.loop_start, deadline(S), 1, 0)  -- a WebSocket closed in the loop ends it, as designed
            end)");
    }
};

}  // namespace

// Which certificates pass, and the ClientHello's server name: sent when set,
// none otherwise (not even the URL's host).
TEST_F(ProtectTest, VerificationAcceptsOnlyTheRightCaNameAndDates) {
    struct row { const char* url; const char* cert; const char* keys; const char* refused_for; const char* sni; };
    for (const row& r : std::initializer_list<row>{
             {"", "good", "cafile = certs .. 'ca.crt'", nullptr, ""},
             {"", "good", "capath = certs .. 'cas'", nullptr, ""},
             {"", "named", "cafile = certs .. 'ca.crt', servername = 'localhost'", nullptr, "localhost"},
             {"", "named", "cafile = certs .. 'ca.crt'", "mismatch|not match", ""},  // the dotted address is checked
             {"", "good", "cafile = certs .. 'other.crt'", "issuer|trusted CA", ""},
             {"", "good", "cafile = certs .. 'ca.crt', servername = 'wrong.invalid'", "mismatch|not match", ""},
             {"", "old", "cafile = certs .. 'ca.crt'", "expired", ""},
             {"", "old", "", nullptr, ""},  // no key: anything goes, as designed
             {"wss://localhost/", "named", "cafile = certs .. 'ca.crt'", nullptr, ""},
             {"wss://127.0.0.1/", "named", "cafile = certs .. 'ca.crt'", "mismatch|not match", ""},
         }) {
        SCOPED_TRACE(std::string(r.url) + " " + r.cert + " " + r.keys);
        const bool ws = *r.url != '\0';
        stall_peer peer(ws, "", 300, r.cert);
        LUA_OK("port = " + std::to_string(peer.port));
        LUA_OK("clear_events(); ws.set_debug(certs .. 'debug.log'); local keys = {" + std::string(r.keys) + "}\n" +
               (ws ? "conn = ws.ws_connect(ws.ws_new(), ws_opts('" + std::string(r.url) + "', port, keys))"
                   : "conn = ws.tcp_connect(ws.tcp_new(), tls_opts(port, keys))") +
               "\nif conn then ws." + (ws ? "ws" : "tcp") + "_close(conn) end; ws.set_debug('NULL')");
        EXPECT_THAT(events(), MatchesRegex(r.refused_for == nullptr ? "open\\|close:User do close"
                                                                    : "error:[0-9]+:ssl[ _]connect[ _]fail!?\\|close:ssl_connect_fail"));
        EXPECT_THAT(eval("io.open(certs .. 'debug.log'):read('*a')"), ContainsRegex(r.refused_for ? r.refused_for : ""));  // the log says why
        std::filesystem::remove(dir() + "debug.log");
        EXPECT_EQ(peer.finish(), r.refused_for == nullptr ? r.sni : "-");
    }
}

// Each wait against a peer that stalls: with io_timeout it ends after that
// long with ETIMEDOUT and the loop serves another socket; without, it lasts
// as long as the peer stalls, as designed. STALL_IO / STALL_SECONDS override.
TEST_F(ProtectTest, IoTimeoutBoundsEveryUnboundedWait) {
    const double io = std::getenv("STALL_IO") ? std::atof(std::getenv("STALL_IO")) : 0.3;
    const double stall = std::getenv("STALL_SECONDS") ? std::atof(std::getenv("STALL_SECONDS")) : 1.2;
    const std::string cut_frame = peers::server_frame(0x81, "0123456789").substr(0, 5);  // header, 3 of 10 bytes
    struct row { const char* wait; bool upgrade; std::string bytes; const char* cert; const char* lua; const char* bounded; const char* unbounded; };
    for (const row& r : std::initializer_list<row>{
             {"tls handshake", false, "", "", "t0 = now(); ws.tcp_connect(ws.tcp_new(), tls_opts(port, keys))",
              "error:110:ssl_connect_fail\\|close:ssl_connect_fail", "error:[0-9]+:ssl_connect_fail\\|close:.*"},
             {"ws answer", false, "", "", "t0 = now(); ws.ws_connect(ws.ws_new(), ws_opts('ws://127.0.0.1/', port, keys))",
              "error:110:Connection timed out\\|close:handshake fail", "error:[0-9]+:[^|]*\\|close:handshake fail"},
             {"ws frame", true, cut_frame, "", "ws.ws_connect(ws.ws_new(), ws_opts('ws://127.0.0.1/', port, keys)); run_loop()",
              "open\\|error:110:Connection timed out\\|close:Connection timed out.*", "open\\|error:.*\\|close:.*"},
             {"tcp read to close", false, "partial", "", "ws.tcp_connect(ws.tcp_new(), tcp_opts(port, keys)); run_loop()",
              "open\\|message.*", "open\\|message.*"},  // what came is delivered
             {"tls read", false, "hello\n", "good", "ws.tcp_connect(ws.tcp_new(), tls_opts(port, keys)); run_loop()",
              "open\\|error:110:Connection timed out\\|close:Connection timed out", "open\\|error:.*\\|close:.*"},
             {"tcp_send", false, "", "", "x = ('x'):rep(8e6); t0 = now(); ws.tcp_send(ws.tcp_connect(ws.tcp_new(), tcp_opts(port, keys)), x)",
              "open\\|error:110:Connection timed out\\|close:send fail", "open"},  // designed: a short count, no event
             {"tls send", false, "", "good", "x = ('x'):rep(8e6); t0 = now(); ws.tcp_send(ws.tcp_connect(ws.tcp_new(), tls_opts(port, keys)), x)",
              "open\\|error:110:Connection timed out\\|close:send fail", "open\\|error:[0-9]+:[^|]*\\|close:send fail"},
         }) {
        for (const bool bound : {true, false}) {
            SCOPED_TRACE(std::string(r.wait) + (bound ? " with io_timeout" : " without"));
            stall_peer peer(r.upgrade, r.bytes, int(stall * 1000), r.cert, std::string(r.wait).ends_with("send"));
            LUA_OK("port = " + std::to_string(peer.port));
            LUA_OK("clear_events(); blocked, udp_served = nil; S = " + std::to_string(stall + 0.4) + "; keys = {" +
                   (bound ? "io_timeout = " + std::to_string(io) : "") + "}; " + r.lua + "; blocked = blocked or now() - t0");
            EXPECT_THAT(events(), MatchesRegex(bound ? r.bounded : r.unbounded));
            const double blocked = num("blocked");
            std::printf("%-18s io_timeout %-5s blocked %.3f s\n", r.wait, bound ? std::to_string(io).c_str() : "-", blocked);
            // a TLS record goes out in several sends, each bounded: the error number shows the bound
            const bool one_call = std::string(r.wait) != "tls send";
            EXPECT_TRUE(bound ? blocked > io - 0.05 && (!one_call || blocked < io + 0.5) : blocked > stall - 0.3) << blocked;
            EXPECT_TRUE(std::string(r.lua).find("run_loop") == std::string::npos || run("assert(udp_served)").empty());
        }
    }
}

// Options errors name the key and the type; a raising callback shows in the log.
TEST_F(ProtectTest, ErrorsNameTheKeyAndCallbackErrorsAreLogged) {
    for (auto [code, says] : {std::pair{"{ port = 1, ip = {} }", "#2 to 'tcp_connect' (field 'ip': string expected, got table)"},
                              {"{ port = 'p' }", "(field 'port': number expected, got string)"},
                              {"tcp_opts(1, { io_timeout = -1 })", "(field 'io_timeout': 0 or more seconds expected"},
                              {"tcp_opts(1, { cafile = true })", "(field 'cafile': string expected, got boolean)"}})
        EXPECT_THAT(run("ws.tcp_connect(ws.tcp_new(), " + std::string(code) + ")"), HasSubstr(says));
    EXPECT_THAT(run("local u = ws.udp_connect(ws.udp_new(), {}); ws.udp_sendto(ws.udp_connect(ws.udp_new(), { type = 2 }), 'x', '127.0.0.1', bind_loopback(u)); "
                    "ws.loop_start(deadline(2), 1, 0)"), HasSubstr("#-1 to 'loop_start' (field 'type': number expected, got nil)"));
    LUA_OK("ws.set_debug(certs .. 'cb.log'); local u = ws.udp_connect(ws.udp_new(), { type = 2, on_open = function() "
           "error('boom') end }); ws.udp_close(u); ws.set_debug('NULL')");  // on_close is absent: no line
    EXPECT_THAT(eval("io.open(certs .. 'cb.log'):read('*a')"), MatchesRegex("(.|\n)*on_open raised an error: .*boom(.|\n)*"));
    EXPECT_THAT(eval("io.open(certs .. 'cb.log'):read('*a')"), ::testing::Not(HasSubstr("on_close raised")));
}
