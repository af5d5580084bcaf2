// The library-wide state of the collection service client: the host name and
// the last error message.
#pragma once

#include <string>

namespace dischive::detail {

/// Sets the last error message that ServiceErrorMessage() returns.
void SetServiceErrorMessage(std::string message);

}  // namespace dischive::detail
