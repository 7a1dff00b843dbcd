#include "tests/WatchedHeap.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>

#include <malloc.h>

std::atomic<long> g_allocationsLeft{LONG_MAX};
std::atomic<bool> g_staysFull{false};
std::atomic<const char*> g_secret{nullptr};
std::atomic<int> g_leaks{0};

// Not inlined: the compiler would see memory of malloc go to operator delete, and warn.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    const long left = g_allocationsLeft--;
    const bool isFull = left == 0 || (left < 0 && g_staysFull);
    void* const block = isFull ? nullptr : std::malloc(size);
    return block != nullptr ? block : throw std::bad_alloc();
}

void operator delete(void* block) noexcept
{
    const char* const secret = g_secret;
    if (block != nullptr && secret != nullptr &&
        memmem(block, malloc_usable_size(block), secret, std::strlen(secret)) != nullptr)
        ++g_leaks;
    std::free(block);
}

void operator delete(void* block, std::size_t /*size*/) noexcept
{
    operator delete(block);
}
