// Interpreter fixture plus helpers for talking to the module's UDP sockets
// over 127.0.0.1 from C. Exposed to the snippets:
//   fd_of(obj), status_of(obj), kind_of(obj), set_status(obj, n)
//   bind_loopback(obj) -> port     bind the object's socket to 127.0.0.1:0
//   local_port(obj) -> port
//   peer_open([port]) -> fd, port  a plain C socket on 127.0.0.1
//   peer_send(fd, port, data) -> bytes (data may hold zero bytes)
//   peer_recv(fd, wait_seconds) -> data, port | nil
//   fd_is_open(fd), close_fd(fd), now() -> monotonic seconds
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "lua_fixture.h"

class UdpLuaTest : public LuaTest {
protected:
    void SetUp() override;
    // Closes every socket the test left open, then the interpreter.
    void TearDown() override;

private:
    int first_free_fd_ = 0;
};

// Sends one datagram to 127.0.0.1:port after `delay` unless cancelled first;
// bounds loops that nothing else would stop.
class DelayedDatagram {
public:
    DelayedDatagram(int port, double delay_seconds);
    ~DelayedDatagram();
    void cancel();

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    bool cancelled_ = false;
    std::thread thread_;
};

double monotonic_seconds();
// Opens /dev/null until the lowest free descriptor is at least `fd`; returns
// the descriptors opened.
std::vector<int> occupy_descriptors_below(int fd);
