// A heap that ends at a chosen allocation, and searches the memory it is given back. Test programs that
// link WatchedHeap.cpp get its operator new and operator delete in place of the standard ones.
#pragma once

#include <atomic>

// How many allocations succeed before one fails with std::bad_alloc. After that one all succeed again,
// or none if g_staysFull.
extern std::atomic<long> g_allocationsLeft;
extern std::atomic<bool> g_staysFull;

// If not null: looked for in every block that is freed, with its spare room.
extern std::atomic<const char*> g_secret;

// The number of blocks that contained it.
extern std::atomic<int> g_leaks;
