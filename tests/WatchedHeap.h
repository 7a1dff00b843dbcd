// A heap that searches the memory it is given back. Test programs that link WatchedHeap.cpp get its
// operator new and operator delete in place of the standard ones.
#pragma once

#include <atomic>
#include <cstdint>

// Larger blocks are refused with std::bad_alloc.
extern std::atomic<std::size_t> g_largestBlock;

// If not null: looked for in every block that is freed, with its spare room.
extern std::atomic<const char*> g_secret;

// The number of blocks that contained it.
extern std::atomic<int> g_leaks;
