// The name of this machine.
#pragma once

#include <optional>
#include <string>

namespace dischive::platform {

/// The machine's host name (at most 255 characters), or nullopt when the
/// system cannot tell it.
std::optional<std::string> MachineHostName();

}  // namespace dischive::platform
