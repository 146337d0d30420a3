// Kernel randomness behind a small pool.
#include "csprng.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#ifdef lua_h
#error "the random source must stay free of the interpreter"
#endif

namespace {

// 64 masking keys per refill; draws above a quarter of it bypass the pool.
constexpr std::size_t POOL_SIZE = 256;
uint8_t pool[POOL_SIZE];
std::size_t pool_left = 0;
pid_t pool_owner = 0;  // a forked child must not reuse its parent's bytes

int read_urandom(uint8_t* out, std::size_t length) {
    const int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return -1;
    std::size_t got = 0;
    while (got < length) {
        const ssize_t n = read(fd, out + got, length - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            const int saved = n == 0 ? EIO : errno;
            close(fd);
            errno = saved;
            return -1;
        }
        got += static_cast<std::size_t>(n);
    }
    close(fd);
    return 0;
}

// GRND_NONBLOCK: before the kernel pool is seeded (early boot on a device
// without a hardware source) /dev/urandom answers at once where getrandom
// would stall the loop; masking keys need unpredictability, not long-term
// secrecy.
int read_kernel(uint8_t* out, std::size_t length) {
    std::size_t got = 0;
    while (got < length) {
        const ssize_t n = getrandom(out + got, length - got, GRND_NONBLOCK);
        if (n > 0) {
            got += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == ENOSYS || errno == EAGAIN || errno == EPERM))
            return read_urandom(out + got, length - got);
        if (n == 0)
            errno = EIO;
        return -1;
    }
    return 0;
}

}  // namespace

int csprng_fill(uint8_t* out, std::size_t length) {
    if (length > POOL_SIZE / 4)
        return read_kernel(out, length);
    const pid_t self = getpid();
    if (self != pool_owner)
        pool_left = 0;
    if (pool_left < length) {
        if (read_kernel(pool, POOL_SIZE) != 0) {
            pool_left = 0;
            return -1;
        }
        pool_left = POOL_SIZE;
        pool_owner = self;
    }
    // taken from the end and wiped, so no byte is handed out twice
    pool_left -= length;
    std::memcpy(out, pool + pool_left, length);
    std::memset(pool + pool_left, 0, length);
    return 0;
}
