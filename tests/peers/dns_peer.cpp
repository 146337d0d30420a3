// The in-process DNS peer.
#include <arpa/inet.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

#include "peer.h"

namespace peers {

namespace {

// The reply to one query (RFC 1035 section 4.1); empty for a malformed one.
std::string answer(const std::string& query, const std::string& name, const std::vector<std::string>& addresses) {
    std::string asked;
    std::size_t end = 12;
    for (std::size_t label; end < query.size() && (label = static_cast<uint8_t>(query[end])) != 0; end += 1 + label)
        asked += (asked.empty() ? "" : ".") + query.substr(end + 1, label);
    if ((end += 5) > query.size())
        return "";
    const char type = query[end - 3];  // 1 A, 28 AAAA (the high byte is 0 for both)
    const bool known = strcasecmp(asked.c_str(), name.c_str()) == 0;
    std::string records;
    char count = 0;
    for (const std::string& text : addresses) {
        unsigned char bytes[16];
        const int size = type == 28 ? 16 : 4;
        if (!known || (type != 1 && type != 28) || inet_pton(size == 16 ? AF_INET6 : AF_INET, text.c_str(), bytes) != 1)
            continue;
        records += std::string{'\xc0', 12, 0, type, 0, 1, 0, 0, 0, 60, 0, static_cast<char>(size)};  // name: the question's
        records.append(reinterpret_cast<char*>(bytes), size);
        ++count;
    }
    return query.substr(0, 2) + std::string{'\x81', known ? '\x80' : '\x83', 0, 1, 0, count, 0, 0, 0, 0} +
           query.substr(12, end - 12) + records;
}

}  // namespace

dns_peer::dns_peer(std::string name, std::vector<std::string> addresses, std::chrono::milliseconds delay) {
    fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int bound = fd == -1 ? -1 : bind_loopback(fd);
    if (bound == -1)
        std::abort();  // a broken peer must not pass silently
    port = static_cast<uint16_t>(bound);
    thread = std::thread([this, name, addresses, delay] {
        using clock = std::chrono::steady_clock;
        struct reply { clock::time_point due; std::string bytes; sockaddr_in to; };
        std::vector<reply> later;
        for (const auto end = clock::now() + 30s; !stop && clock::now() < end;) {
            char query[512];
            sockaddr_in from{};
            socklen_t length = sizeof from;
            const ssize_t got = wait_readable(fd, 10ms) ? recvfrom(fd, query, sizeof query, 0, reinterpret_cast<sockaddr*>(&from), &length) : 0;
            const std::string bytes = got > 12 ? answer(std::string(query, got), name, addresses) : "";
            if (!bytes.empty() && delay >= 0ms)
                later.push_back({clock::now() + delay, bytes, from});
            const auto now = clock::now();
            for (auto due = later.begin(); due != later.end();) {
                if (due->due > now) {
                    ++due;
                    continue;
                }
                if (sendto(fd, due->bytes.data(), due->bytes.size(), 0, reinterpret_cast<sockaddr*>(&due->to), sizeof due->to) < 0)
                    std::perror("dns peer");
                due = later.erase(due);
            }
        }
    });
}

dns_peer::~dns_peer() {
    stop = true;
    thread.join();
    close(fd);
}

}  // namespace peers
