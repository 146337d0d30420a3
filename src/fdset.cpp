// Descriptor sets for select().
#include "fdset.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

#ifdef lua_h
#error "descriptor sets must stay free of the interpreter"
#endif

constexpr std::size_t bits_per_word = sizeof(unsigned long) * CHAR_BIT;

void select_set_clear(select_set& set) {
    if (set.words != nullptr)
        std::memset(set.words, 0, set.word_count * sizeof(unsigned long));
}

static bool select_set_grow(select_set& set, std::size_t word_count) {
    // at least what an fd_set holds, doubling after that
    std::size_t wanted = set.word_count == 0 ? FD_SETSIZE / bits_per_word : set.word_count;
    while (wanted < word_count)
        wanted *= 2;
    void* grown = std::realloc(set.words, wanted * sizeof(unsigned long));
    if (grown == nullptr)
        return false;
    set.words = static_cast<unsigned long*>(grown);
    std::memset(set.words + set.word_count, 0, (wanted - set.word_count) * sizeof(unsigned long));
    set.word_count = wanted;
    return true;
}

bool select_set_add(select_set& set, int fd) {
    if (fd < 0)
        return true;
    const std::size_t word = static_cast<std::size_t>(fd) / bits_per_word;
    if (word >= set.word_count && !select_set_grow(set, word + 1))
        return false;
    set.words[word] |= 1UL << (static_cast<std::size_t>(fd) % bits_per_word);
    return true;
}

bool select_set_has(const select_set& set, int fd) {
    if (fd < 0)
        return false;
    const std::size_t word = static_cast<std::size_t>(fd) / bits_per_word;
    if (word >= set.word_count)
        return false;
    return (set.words[word] >> (static_cast<std::size_t>(fd) % bits_per_word)) & 1UL;
}

void select_set_remove(select_set& set, int fd) {
    if (select_set_has(set, fd))
        set.words[static_cast<std::size_t>(fd) / bits_per_word] &= ~(1UL << (static_cast<std::size_t>(fd) % bits_per_word));
}

fd_set* select_set_fds(select_set& set) { return reinterpret_cast<fd_set*>(set.words); }

static select_set single{};

int select_single(int fd, wait_for what, timeval* timeout) {
    select_set_clear(single);
    if (fd < 0) {
        errno = EBADF;
        return -1;
    }
    if (!select_set_add(single, fd)) {
        errno = ENOMEM;
        return -1;
    }
    fd_set* set = select_set_fds(single);
    return what == wait_for::read ? select(fd + 1, set, nullptr, nullptr, timeout)
                                  : select(fd + 1, nullptr, set, nullptr, timeout);
}
