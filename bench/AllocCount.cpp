#include "AllocCount.h"

#include <atomic>
#include <cstddef>

extern "C" void *__libc_malloc(std::size_t size);

namespace {
std::atomic<bool> counting{false};
std::atomic<unsigned long> allocations{0};
} // namespace

// Every malloc of the process lands here, Qt's and protobuf's included, since
// the executable's definition comes first in symbol resolution. operator new
// reaches it too.
extern "C" void *malloc(std::size_t size)
{
    if (counting.load(std::memory_order_relaxed))
        allocations.fetch_add(1, std::memory_order_relaxed);
    return __libc_malloc(size);
}

namespace vorbench {

void setAllocCounting(bool on)
{
    counting.store(on, std::memory_order_relaxed);
}

unsigned long allocCount()
{
    return allocations.load(std::memory_order_relaxed);
}

} // namespace vorbench
