#include "platform/host_name.h"

#include <unistd.h>

namespace dischive::platform {

std::optional<std::string> MachineHostName() {
  char name[256] = {};
  // One byte stays NUL: a name that fills the buffer may come back unterminated.
  if (::gethostname(name, sizeof(name) - 1) != 0 || name[0] == '\0') return std::nullopt;
  return std::string(name);
}

}  // namespace dischive::platform
