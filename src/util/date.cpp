#include "dischive/date.h"

#include <fmt/format.h>

namespace dischive {

uint32_t PackDate(const CatalogDate& date) {
  if (date.year <= 0) return 0;
  return (static_cast<uint32_t>(date.year - 1900) & 127u) << 24 |
         (static_cast<uint32_t>(date.month) & 0xFFu) << 16 |
         (static_cast<uint32_t>(date.day) & 0xFFu) << 8;
}

CatalogDate UnpackDate(uint32_t packed) {
  if (packed == 0) return {};
  return CatalogDate{1900 + static_cast<int>((packed >> 24) & 127u),
                     static_cast<int>((packed >> 16) & 0xFFu),
                     static_cast<int>((packed >> 8) & 0xFFu)};
}

std::string FormatDate(uint32_t packed) {
  const CatalogDate d = UnpackDate(packed);
  if (d.year == 0) return {};
  if (d.month == 0) return fmt::format("{:04d}", d.year);
  if (d.day == 0) return fmt::format("{:04d}-{:02d}", d.year, d.month);
  return fmt::format("{:04d}-{:02d}-{:02d}", d.year, d.month, d.day);
}

std::optional<uint32_t> ParseDate(std::string_view text) {
  int parts[3] = {0, 0, 0};
  size_t widths[3] = {4, 2, 2};
  size_t pos = 0;
  int count = 0;
  for (; count < 3 && pos < text.size(); ++count) {
    if (count > 0) {
      if (text[pos] != '-') return std::nullopt;
      ++pos;
    }
    if (text.size() - pos < widths[count]) return std::nullopt;
    for (size_t i = 0; i < widths[count]; ++i, ++pos) {
      const char c = text[pos];
      if (c < '0' || c > '9') return std::nullopt;
      parts[count] = parts[count] * 10 + (c - '0');
    }
  }
  if (count == 0 || pos != text.size()) return std::nullopt;
  if (parts[0] < 1900 || parts[0] > 2027 || parts[1] > 12 || parts[2] > 31) return std::nullopt;
  if ((count >= 2 && parts[1] == 0) || (count == 3 && parts[2] == 0)) return std::nullopt;
  return PackDate({parts[0], parts[1], parts[2]});
}

}  // namespace dischive
