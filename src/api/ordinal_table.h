// The ordinal table of the C interface, for checks and for the CLI.
#pragma once

#include <span>

namespace dischive::api {

struct OrdinalEntry {
  int ordinal;
  const char* name;
};

/// Every exported operation, in the order of ordinals.inc.
std::span<const OrdinalEntry> OrdinalTable();

}  // namespace dischive::api
