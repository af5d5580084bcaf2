// Playing times from counts of CD frames (75 to the second), as every report
// and document writes them.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace dischive {

/// How a playing time is written.
enum class TimeStyle {
  kMinutes,  ///< "m:ss", however many minutes (track times)
  kHours,    ///< "m:ss" below an hour, "h:mm:ss" from an hour on (albums, volumes)
  kFrames,   ///< "m:ss.ff", the last part in frames 00-74
};

/// A playing time formatted on the stack: documents write millions of them.
class FrameTime {
 public:
  FrameTime(uint64_t frames, TimeStyle style);

  std::string_view text() const { return {data_.data(), size_}; }
  operator std::string_view() const { return text(); }
  std::string str() const { return std::string(text()); }

 private:
  void Number(uint64_t value);
  void TwoDigits(uint64_t value);

  std::array<char, 32> data_{};
  size_t size_ = 0;
};

}  // namespace dischive
