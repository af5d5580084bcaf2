// Dates as the catalogue stores them: ((year - 1900) & 127) << 24 | month << 16
// | day << 8, where 0 marks an unknown part.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace dischive {

struct CatalogDate {
  int year = 0;   ///< 0 = unknown
  int month = 0;  ///< 1-12, 0 = unknown
  int day = 0;    ///< 1-31, 0 = unknown
};

uint32_t PackDate(const CatalogDate& date);
CatalogDate UnpackDate(uint32_t packed);
/// "YYYY", "YYYY-MM" or "YYYY-MM-DD"; empty for 0.
std::string FormatDate(uint32_t packed);
/// Reads "YYYY", "YYYY-MM" or "YYYY-MM-DD" (years 1900-2027).
std::optional<uint32_t> ParseDate(std::string_view text);

}  // namespace dischive
