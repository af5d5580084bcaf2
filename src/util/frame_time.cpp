#include "util/frame_time.h"

#include <charconv>

namespace dischive {

FrameTime::FrameTime(uint64_t frames, TimeStyle style) {
  const uint64_t seconds = frames / 75;
  if (style == TimeStyle::kHours && seconds >= 3600) {
    Number(seconds / 3600);
    data_[size_++] = ':';
    TwoDigits(seconds / 60 % 60);
  } else {
    Number(seconds / 60);
  }
  data_[size_++] = ':';
  TwoDigits(seconds % 60);
  if (style == TimeStyle::kFrames) {
    data_[size_++] = '.';
    TwoDigits(frames % 75);
  }
}

void FrameTime::Number(uint64_t value) {
  // At most 20 digits, then ":mm:ss.ff": always within the buffer.
  size_ = static_cast<size_t>(
      std::to_chars(data_.data() + size_, data_.data() + data_.size(), value).ptr - data_.data());
}

void FrameTime::TwoDigits(uint64_t value) {
  data_[size_++] = static_cast<char>('0' + value / 10 % 10);
  data_[size_++] = static_cast<char>('0' + value % 10);
}

}  // namespace dischive
