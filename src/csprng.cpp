// Kernel randomness behind a small pool.
#include "csprng.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <unistd.h>

#ifdef lua_h
#error "the random source must stay free of the interpreter"
#endif

namespace {

// 64 masking keys per refill; draws above a quarter of it bypass the pool.
constexpr std::size_t POOL_SIZE = 256;

// A forked child must not reuse its parent's bytes. Where the kernel wipes a
// page in the child (MADV_WIPEONFORK), the pool lives there and a child finds
// it empty; elsewhere the owner's pid is compared on every draw.
struct pool_page {
    std::size_t left;
    uint8_t bytes[POOL_SIZE];
};
pool_page fallback_pool;
pool_page* pool = nullptr;
bool wiped_on_fork = false;
pid_t pool_owner = 0;

pool_page* pick_pool() {
#ifdef MADV_WIPEONFORK
    const long page = sysconf(_SC_PAGESIZE);
    const std::size_t length = page > 0 ? static_cast<std::size_t>(page) : 4096;
    void* mapped = length >= sizeof(pool_page)
                       ? mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)
                       : MAP_FAILED;
    if (mapped != MAP_FAILED && madvise(mapped, length, MADV_WIPEONFORK) == 0) {
        wiped_on_fork = true;
        return static_cast<pool_page*>(mapped);
    }
    if (mapped != MAP_FAILED && munmap(mapped, length) != 0)
        return &fallback_pool;  // the page stays mapped, unused
#endif
    return &fallback_pool;
}

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
    if (pool == nullptr)
        pool = pick_pool();
    if (!wiped_on_fork) {
        const pid_t self = getpid();
        if (self != pool_owner)
            pool->left = 0;
        pool_owner = self;
    }
    if (pool->left < length) {
        if (read_kernel(pool->bytes, POOL_SIZE) != 0) {
            pool->left = 0;
            return -1;
        }
        pool->left = POOL_SIZE;
    }
    // taken from the end and wiped, so no byte is handed out twice
    pool->left -= length;
    std::memcpy(out, pool->bytes + pool->left, length);
    std::memset(pool->bytes + pool->left, 0, length);
    return 0;
}
