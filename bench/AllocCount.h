#pragma once

// Heap allocations made by the process while counting is switched on. The
// benchmark binary replaces malloc to count them; counting is off except in
// the benchmarks that read it, so threads elsewhere pay one flag test only.

namespace vorbench {

void setAllocCounting(bool on);
unsigned long allocCount();

} // namespace vorbench
