// Names and addresses for the loop: ws:// URL splitting, address text, and
// the resolver against the in-process DNS peer.
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

#include "address_text.h"
#include "peers/peer.h"
#include "resolve.h"
#include "ws_url.h"

using namespace std::chrono_literals;

TEST(WsUrl, SplitsOrRefuses) {
    const std::pair<std::string, std::string> rows[] = {  // url, "wss? host port target Host" or why refused
        {"ws://example.com/chat?x=1", "0 example.com 80 /chat?x=1 example.com"}, {"WSS://Ex.com", "1 Ex.com 443 / Ex.com"},
        {"ws://h:8080", "0 h 8080 / h:8080"}, {"wss://h:443/a//b", "1 h 443 /a//b h"}, {"ws://h:080?q", "0 h 80 /?q h"},
        {"ws://[::1]:9000/", "0 ::1 9000 / [::1]:9000"}, {"wss://[2001:db8::1]/p", "1 2001:db8::1 443 /p [2001:db8::1]"},
        {"wss://h:80", "1 h 80 / h:80"}, {"http://h/", "not a ws:// or wss:// URL"}, {"ws:/h/", "not a ws:// or wss:// URL"},
        {"ws:///p", "no host in the URL"}, {"ws://:80/", "no host in the URL"}, {"ws://u@h/", "bad host in the URL"},
        {"ws://[::1/", "bad IPv6 address in the URL"}, {"ws://[1.2.3.4]/", "bad IPv6 address in the URL"},
        {"ws://[::1]x/", "bad host in the URL"}, {"ws://h:0/", "bad port in the URL"}, {"ws://h:65536", "bad port in the URL"},
        {"ws://h:/", "bad port in the URL"}, {"ws://h:8a", "bad port in the URL"}, {"ws://h:1:2", "bad port in the URL"},
        {"ws://h/a b", "bad character in the URL's path"}, {"ws://h/a#f", "bad character in the URL's path"},
        {"ws://h/\r\nX: 1", "bad character in the URL's path"}, {"ws://h?\x7f", "bad character in the URL's path"}};
    for (const auto& [url, expected] : rows) {
        std::vector<char> text(ws_url_text_size(url.size()));
        ws_url_parts parts{};
        const char* why = ws_url_split(url, text, parts);
        EXPECT_EQ(why != nullptr ? why : (parts.secure ? "1 " : "0 ") + std::string(parts.host) + " " +
                                             std::to_string(parts.port) + " " + parts.target + " " + parts.host_header,
                  expected) << url;
        if (why != nullptr)
            continue;
        const std::size_t needed = std::strlen(parts.host) + std::strlen(parts.target) + std::strlen(parts.host_header) + 3;
        EXPECT_STREQ(ws_url_split(url, std::span(text).first(needed - 1), parts), "URL too long") << url;
    }
}

TEST(AddressText, ParsedForTheSocketFamilyAndFormattedUnmapped) {
    const std::tuple<const char*, int, std::string> rows[] = {  // text, socket family, "4|6 text port" or "-"
        {"192.0.2.1", AF_INET, "4 192.0.2.1 7"}, {"192.0.2.1", AF_UNSPEC, "4 192.0.2.1 7"},
        {"192.0.2.1", AF_INET6, "6 192.0.2.1 7"}, {"::ffff:10.0.0.1", AF_UNSPEC, "6 10.0.0.1 7"},
        {"2001:DB8::1", AF_INET6, "6 2001:db8::1 7"}, {"fe80::1%lo", AF_INET6, "6 fe80::1%lo 7"},
        {"fe80::1%999999", AF_UNSPEC, "6 fe80::1%999999 7"}, {"::1", AF_INET, "-"}, {"fe80::1%nosuchif", AF_INET6, "-"},
        {"fe80::1%", AF_INET6, "-"}, {"127.1", AF_INET, "-"}, {"1.2.3.4 ", AF_UNSPEC, "-"}, {"", AF_INET6, "-"},
        {"1:2:3:4:5:6:7:8:9", AF_INET6, "-"}, {"::ffff:1.2.3.4%lo", AF_INET6, "-"}};
    for (const auto& [text, family, expected] : rows) {
        sockaddr_storage address;
        std::memset(&address, 0xee, sizeof address);
        const socklen_t length = address_parse(text, 7, family, address);
        char formatted[ADDRESS_TEXT_SIZE];
        uint16_t port = 0;
        const char* back = length == 0 ? nullptr : address_format(address, formatted, &port);
        EXPECT_EQ(back == nullptr ? "-" : (length == sizeof(sockaddr_in) ? "4 " : "6 ") + std::string(back) + " " +
                                              std::to_string(port), expected) << text;
    }
    sockaddr_storage address{};
    uint16_t port = 0;
    char text[9];  // one short of "192.0.2.1" and its zero
    ASSERT_NE(address_parse("192.0.2.1", 7, AF_INET, address), 0u);
    EXPECT_EQ(address_format(address, text, &port), nullptr);
}

namespace {

// peers/dns_peer.py on a UDP socket bound here (127.0.0.1, a run-time port);
// it stops when its standard input closes.
struct dns_peer {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);  // no SOCK_CLOEXEC: the script takes it over
    int port = peers::bind_loopback(fd);
    FILE* input;
    explicit dns_peer(const std::string& arguments)
        : input(popen(("exec python3 " DNS_PEER " " + std::to_string(fd) + " " + arguments).c_str(), "w")) {}
    ~dns_peer() { pclose(input), close(fd); }
};

// Turns the loop until the query ends (10 s at most): the addresses sorted as
// "text port,...", noting when the families did not take turns, or the error's name.
std::string drive(resolve_query* query) {
    static select_set readers{}, writers{};
    for (const auto end = std::chrono::steady_clock::now() + 10s;
         query->state == resolve_state::pending && std::chrono::steady_clock::now() < end;) {
        select_set_clear(readers), select_set_clear(writers);
        int highest = -1;
        EXPECT_TRUE(resolve_watch(*query, readers, writers, &highest));
        const long wait = resolve_wait_ms(*query);
        timeval timeout{wait / 1000, wait % 1000 * 1000};
        const bool ready = select(highest + 1, select_set_fds(readers), select_set_fds(writers), nullptr, &timeout) > 0;
        resolve_advance(*query, ready ? &readers : nullptr, ready ? &writers : nullptr);
    }
    std::vector<std::string> found;
    bool turns = true;
    for (std::size_t i = 0; i < query->count; ++i) {
        char text[ADDRESS_TEXT_SIZE];
        uint16_t port = 0;
        const std::string address = address_format(query->addresses[i].address, text, &port);
        found.push_back(address + " " + std::to_string(port));
        const auto family = [&](std::size_t at) { return query->addresses[at].address.ss_family; };
        turns = turns && !(i >= 2 && family(i - 1) == family(i - 2) && family(i) != family(i - 1));
    }
    std::sort(found.begin(), found.end());
    std::string result = query->state == resolve_state::failed ? strerrorname_np(query->error) : "";
    for (const std::string& address : found)
        result += (result.empty() ? "" : ",") + address;
    resolve_free(query);
    return turns ? result : result + " (families not alternating)";
}

}  // namespace

TEST(Resolve, LiteralsAtOnceAndBadNamesRefusedBeforeAsking) {
    std::string too_long = "aa";  // 254 characters in short labels, no root dot
    while (too_long.size() < 254)
        too_long += ".a";
    for (const auto& [name, expected] : {std::pair{"127.0.0.1", "127.0.0.1 80"}, {"::1", "::1 80"}, {"", "EINVAL"},
                                         {too_long.c_str(), "EINVAL"}, {"localhost", "127.0.0.1 80"}}) {
        resolve_query* query = resolve_start(name, 80, 1000);
        ASSERT_NE(query, nullptr);
        const bool hosts_file = std::strcmp(name, "localhost") == 0;  // may be read in the loop
        EXPECT_TRUE(hosts_file || query->state != resolve_state::pending) << name;
        EXPECT_THAT(drive(query), ::testing::HasSubstr(expected)) << name;
    }
}

TEST(Resolve, NamesThroughTheDnsPeerInTheLoop) {
    if (std::strcmp(resolve_backend(), "c-ares") != 0)
        GTEST_SKIP() << "built without c-ares: names go through a blocking getaddrinfo(), which has no server to point at the peer";
    const std::tuple<const char*, const char*, int, std::string> rows[] = {  // name, peer: delay (s) records, time-out
        {"peer.test", "0 127.0.0.2 127.0.0.3 2001:db8::1 127.0.0.2", 5000, "127.0.0.2 443,127.0.0.3 443,2001:db8::1 443"},
        {"Peer.Test", "0 ::1 127.0.0.1", 5000, "127.0.0.1 443,::1 443"},
        {"peer.test", "1.5 127.0.0.1", 5000, "127.0.0.1 443"},  // late
        {"peer.test", "-1 127.0.0.1", 800, "ETIMEDOUT"},       // never
        {"other.test", "0 127.0.0.1", 5000, "ENOENT"}};
    for (const auto& [name, answers, timeout, result] : rows) {
        dns_peer peer(std::string("peer.test ") + answers);
        setenv("WS_CLIENT_DNS_SERVER", ("127.0.0.1:" + std::to_string(peer.port)).c_str(), 1);
        resolve_query* query = resolve_start(name, 443, timeout);
        ASSERT_NE(query, nullptr);
        EXPECT_EQ(query->state, resolve_state::pending) << "the start does not wait: " << name;
        EXPECT_EQ(drive(query), result) << name << ", peer: " << answers;
        resolve_free(resolve_start("peer.test", 443, 5000));  // cancelled while pending
    }
    setenv("WS_CLIENT_DNS_SERVER", "no server", 1);
    EXPECT_EQ(drive(resolve_start("peer.test", 443, 5000)), "EINVAL");
    unsetenv("WS_CLIENT_DNS_SERVER");
}
