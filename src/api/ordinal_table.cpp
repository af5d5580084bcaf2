#include "api/ordinal_table.h"

namespace dischive::api {
namespace {

constexpr OrdinalEntry kTable[] = {
#define DHV_ORDINAL(ordinal, name) {ordinal, #name},
#include "api/ordinals.inc"
#undef DHV_ORDINAL
};

}  // namespace

std::span<const OrdinalEntry> OrdinalTable() {
  return kTable;
}

}  // namespace dischive::api
