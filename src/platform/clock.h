// Monotonic time for time-outs and progress rates.
#pragma once

#include <chrono>
#include <cstdint>

namespace dischive::platform {

/// Milliseconds since an arbitrary start, wrapping at 2^32 like GetTickCount.
uint32_t TickCount();
/// Sleeps the calling thread.
void SleepMs(uint32_t milliseconds);

}  // namespace dischive::platform
