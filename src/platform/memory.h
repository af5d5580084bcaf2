// Hints to the system about how the library uses large buffers.
#pragma once

#include <cstddef>

namespace dischive::platform {

/// Asks for huge pages behind a large buffer that is about to be filled
/// front to back (a downloaded body), so that filling it takes a fault per
/// 2 MiB instead of one per 4 KiB. A hint only: does nothing where the system
/// does not offer it.
void AdviseSequentialFill(void* data, size_t size);

}  // namespace dischive::platform
