#include "dischive/cover.h"

#include <gtest/gtest.h>
#include <turbojpeg.h>

#include <cstdint>
#include <string>
#include <vector>

namespace dischive {
namespace {

// A JPEG made by libjpeg-turbo: the left half red, the right half blue (or a
// grey ramp when `grey`).
std::string MakeJpeg(int width, int height, bool grey = false) {
  const int ch = grey ? 1 : 3;
  std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * ch);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      uint8_t* p = &pixels[(static_cast<size_t>(y) * width + x) * ch];
      if (grey) {
        p[0] = static_cast<uint8_t>(x * 255 / width);
      } else {
        const bool left = x < width / 2;
        p[0] = left ? 220 : 20;
        p[1] = 30;
        p[2] = left ? 20 : 220;
      }
    }
  }
  tjhandle handle = tjInitCompress();
  unsigned char* jpeg = nullptr;
  unsigned long size = 0;
  EXPECT_EQ(tjCompress2(handle, pixels.data(), width, 0, height, grey ? TJPF_GRAY : TJPF_RGB, &jpeg,
                        &size, grey ? TJSAMP_GRAY : TJSAMP_420, 85, 0),
            0);
  std::string bytes(reinterpret_cast<const char*>(jpeg), size);
  tjFree(jpeg);
  tjDestroy(handle);
  return bytes;
}

struct Decoded {
  int width = 0, height = 0, subsampling = -1;
  std::vector<uint8_t> rgb;
};

Decoded Decode(const std::string& jpeg) {
  Decoded d;
  tjhandle handle = tjInitDecompress();
  const auto* data = reinterpret_cast<const unsigned char*>(jpeg.data());
  int colorspace = 0;
  if (tjDecompressHeader3(handle, data, jpeg.size(), &d.width, &d.height, &d.subsampling,
                          &colorspace) == 0) {
    d.rgb.resize(static_cast<size_t>(d.width) * d.height * 3);
    EXPECT_EQ(
        tjDecompress2(handle, data, jpeg.size(), d.rgb.data(), d.width, 0, d.height, TJPF_RGB, 0),
        0);
  }
  tjDestroy(handle);
  return d;
}

TEST(CoverTest, HashIsUpperCaseMd5OfTheBytes) {
  EXPECT_EQ(CoverHash(""), "D41D8CD98F00B204E9800998ECF8427E");
  EXPECT_EQ(CoverHash("abc"), "900150983CD24FB0D6963F7D28E17F72");
}

TEST(CoverTest, LargeCoversAreScaledToTheUploadSize) {
  struct Case {
    int width, height;
    bool grey;
    int want_width, want_height;
  };
  const Case cases[] = {
      {1000, 600, false, 160, 96}, {600, 1000, false, 96, 160}, {161, 161, false, 160, 160},
      {1000, 5, false, 160, 1},    {400, 300, true, 160, 120},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.width << "x" << c.height);
    const std::string stored = MakeJpeg(c.width, c.height, c.grey);
    const PreparedCover cover = PrepareCover(stored);
    ASSERT_EQ(cover.outcome, CoverOutcome::kScaled);
    EXPECT_EQ(cover.width, c.want_width);
    EXPECT_EQ(cover.height, c.want_height);
    const Decoded d = Decode(cover.bytes);
    EXPECT_EQ(d.width, c.want_width);
    EXPECT_EQ(d.height, c.want_height);
    EXPECT_EQ(d.subsampling, c.grey ? TJSAMP_GRAY : TJSAMP_420);
    // The same input always gives the same bytes, hence the same hash.
    EXPECT_EQ(PrepareCover(stored).bytes, cover.bytes);
  }

  // The picture survives the scaling: red on the left, blue on the right.
  const Decoded d = Decode(PrepareCover(MakeJpeg(1000, 600)).bytes);
  const uint8_t* left = &d.rgb[(48 * 160 + 20) * 3];
  const uint8_t* right = &d.rgb[(48 * 160 + 140) * 3];
  EXPECT_GT(left[0], 180);
  EXPECT_LT(left[2], 60);
  EXPECT_LT(right[0], 60);
  EXPECT_GT(right[2], 180);
}

TEST(CoverTest, SmallAndUndecodableCoversAreUsedAsStored) {
  for (const auto& [w, h] : {std::pair{120, 160}, std::pair{160, 160}, std::pair{1, 1}}) {
    const std::string stored = MakeJpeg(w, h);
    const PreparedCover cover = PrepareCover(stored);
    EXPECT_EQ(cover.outcome, CoverOutcome::kKept);
    EXPECT_EQ(cover.bytes, stored);
    EXPECT_EQ(cover.width, w);
  }

  std::string truncated = MakeJpeg(800, 800);
  truncated.resize(truncated.size() / 2);
  const std::string not_jpeg = "\x89PNG\r\n\x1a\nnot really";
  for (const std::string& stored : {not_jpeg, truncated, std::string("\xFF\xD8\xFF", 3)}) {
    const PreparedCover cover = PrepareCover(stored);
    EXPECT_EQ(cover.outcome, CoverOutcome::kUndecodable);
    EXPECT_EQ(cover.bytes, stored);
  }
}

}  // namespace
}  // namespace dischive
