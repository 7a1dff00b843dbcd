#include "tests/WatchedHeap.h"

#include <cstdlib>
#include <cstring>
#include <new>

#include <malloc.h>

std::atomic<std::size_t> g_largestBlock{SIZE_MAX};
std::atomic<const char*> g_secret{nullptr};
std::atomic<int> g_leaks{0};

// Not inlined: the compiler would see memory of malloc go to operator delete, and warn.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    void* const block = size <= g_largestBlock ? std::malloc(size) : nullptr;
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
