#include "util/frame_time.h"

#include <gtest/gtest.h>

namespace dischive {
namespace {

TEST(FrameTimeTest, EachStyle) {
  struct Case {
    uint64_t frames;
    TimeStyle style;
    const char* want;
  };
  const Case cases[] = {
      {0, TimeStyle::kMinutes, "0:00"},
      {74, TimeStyle::kMinutes, "0:00"},  // whole seconds only
      {75 * 61, TimeStyle::kMinutes, "1:01"},
      {75 * 3600, TimeStyle::kMinutes, "60:00"},  // tracks never switch to hours
      {75 * 3599, TimeStyle::kHours, "59:59"},
      {75 * 3600, TimeStyle::kHours, "1:00:00"},
      {75 * (10 * 3600 + 5 * 60 + 9), TimeStyle::kHours, "10:05:09"},
      {75 * 125 + 74, TimeStyle::kFrames, "2:05.74"},
      {UINT64_MAX, TimeStyle::kHours, "68321274347072:24:48"},
      {UINT64_MAX, TimeStyle::kFrames, "4099276460824344:48.15"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(FrameTime(c.frames, c.style).text(), c.want) << c.frames;
  }
}

}  // namespace
}  // namespace dischive
