// The few C++ runtime pieces the module uses, so that it needs no C++
// runtime library on the device (linked into the module only; the test
// programs keep the toolchain's own runtime).
//
// Allocation goes to malloc/free. Where the toolchain's runtime would throw
// (out of memory, a container or view index out of range) there is no
// handler in a build without exceptions, and its runtime would terminate:
// these do the same, at once.
#include <bits/functexcept.h>  // declarations of the library's throw helpers

#include <cstdlib>
#include <new>

namespace {

[[noreturn]] void no_exceptions() { std::abort(); }

void* allocate(std::size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr)
        no_exceptions();
    return block;
}

}  // namespace

// ---- allocation ----

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }

// ---- where the library would throw ----

namespace std {
void __throw_bad_alloc() { no_exceptions(); }
void __throw_bad_array_new_length() { no_exceptions(); }
void __throw_length_error(const char*) { no_exceptions(); }
void __throw_out_of_range(const char*) { no_exceptions(); }
void __throw_out_of_range_fmt(const char*, ...) { no_exceptions(); }
void __throw_logic_error(const char*) { no_exceptions(); }
void __throw_invalid_argument(const char*) { no_exceptions(); }
}  // namespace std

#ifdef __ARM_EABI__
// ARM registers static destructors through this; the C library has the rest.
extern "C" int __cxa_atexit(void (*destroy)(void*), void* object, void* dso_handle);
extern "C" int __aeabi_atexit(void* object, void (*destroy)(void*), void* dso_handle) {
    return __cxa_atexit(destroy, object, dso_handle);
}
#endif

// A pure virtual call cannot happen in correct code; the runtime aborts too.
extern "C" void __cxa_pure_virtual() { no_exceptions(); }
