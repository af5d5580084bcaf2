// Cover scaling with libjpeg-turbo: decode (with DCT scaling when the image is
// much larger than needed), area-average down to the target size, unsharp mask,
// encode.
#include "dischive/cover.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <vector>

#include "dischive/codec.h"

namespace dischive {
namespace {

// Decoded images larger than this are refused rather than allocated.
constexpr int64_t kMaxDecodedPixels = 24 * 1024 * 1024;
constexpr int kJpegQuality = 90;
constexpr double kSharpenAmount = 0.30;
constexpr double kSharpenRadius = 0.5;
constexpr int kSharpenThreshold = 3;

struct TjHandleCloser {
  void operator()(void* handle) const { tjDestroy(handle); }
};
using TjHandle = std::unique_ptr<void, TjHandleCloser>;

struct Image {
  int width = 0;
  int height = 0;
  int channels = 0;  // 1 (grey) or 3 (RGB)
  std::vector<uint8_t> pixels;
};

// One output sample of a resampled axis: the source samples it covers and the
// share of each.
struct Contribution {
  int first = 0;
  std::vector<float> weights;
};

// Area averaging from `from` samples down (or up) to `to` samples: output
// sample i covers the source interval [i * from / to, (i + 1) * from / to).
std::vector<Contribution> AreaWeights(int from, int to) {
  std::vector<Contribution> result(static_cast<size_t>(to));
  const double scale = static_cast<double>(from) / to;
  for (int i = 0; i < to; ++i) {
    const double begin = i * scale;
    const double end = std::min<double>(from, (i + 1) * scale);
    Contribution& c = result[static_cast<size_t>(i)];
    c.first = static_cast<int>(std::floor(begin));
    const int last = std::min(from - 1, static_cast<int>(std::ceil(end)) - 1);
    double total = 0;
    for (int s = c.first; s <= last; ++s) {
      const double w = std::min<double>(end, s + 1) - std::max<double>(begin, s);
      c.weights.push_back(static_cast<float>(w));
      total += w;
    }
    for (float& w : c.weights)
      w = static_cast<float>(w / total);
  }
  return result;
}

Image Resample(const Image& src, int width, int height) {
  const int ch = src.channels;
  const std::vector<Contribution> across = AreaWeights(src.width, width);
  const std::vector<Contribution> down = AreaWeights(src.height, height);
  // Horizontal pass into floats, then vertical pass into bytes.
  std::vector<float> rows(static_cast<size_t>(src.height) * width * ch);
  for (int y = 0; y < src.height; ++y) {
    const uint8_t* in = &src.pixels[static_cast<size_t>(y) * src.width * ch];
    float* out = &rows[static_cast<size_t>(y) * width * ch];
    for (int x = 0; x < width; ++x) {
      const Contribution& c = across[static_cast<size_t>(x)];
      for (int k = 0; k < ch; ++k) {
        float sum = 0;
        for (size_t i = 0; i < c.weights.size(); ++i) {
          sum += c.weights[i] * in[(static_cast<size_t>(c.first) + i) * ch + k];
        }
        out[x * ch + k] = sum;
      }
    }
  }
  Image dst{width, height, ch, std::vector<uint8_t>(static_cast<size_t>(width) * height * ch)};
  const size_t stride = static_cast<size_t>(width) * ch;
  for (int y = 0; y < height; ++y) {
    const Contribution& c = down[static_cast<size_t>(y)];
    for (size_t x = 0; x < stride; ++x) {
      float sum = 0;
      for (size_t i = 0; i < c.weights.size(); ++i) {
        sum += c.weights[i] * rows[(static_cast<size_t>(c.first) + i) * stride + x];
      }
      dst.pixels[static_cast<size_t>(y) * stride + x] =
          static_cast<uint8_t>(std::clamp(std::lround(sum), 0L, 255L));
    }
  }
  return dst;
}

// Unsharp mask: the difference between each sample and a Gaussian blur of the
// image (sigma = radius) is added back, scaled by the amount, where it is at
// least the threshold.
void UnsharpMask(Image& image, double amount, double radius, int threshold) {
  const int reach = std::max(1, static_cast<int>(std::ceil(3 * radius)));
  std::vector<float> kernel(static_cast<size_t>(2 * reach + 1));
  float total = 0;
  for (int i = -reach; i <= reach; ++i) {
    const float w = static_cast<float>(std::exp(-(i * i) / (2 * radius * radius)));
    kernel[static_cast<size_t>(i + reach)] = w;
    total += w;
  }
  for (float& w : kernel)
    w /= total;

  const int width = image.width, height = image.height, ch = image.channels;
  auto at = [&](int x, int y, int k) {
    x = std::clamp(x, 0, width - 1);
    y = std::clamp(y, 0, height - 1);
    return (static_cast<size_t>(y) * width + x) * ch + k;
  };
  std::vector<float> across(image.pixels.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int k = 0; k < ch; ++k) {
        float sum = 0;
        for (int i = -reach; i <= reach; ++i) {
          sum += kernel[static_cast<size_t>(i + reach)] * image.pixels[at(x + i, y, k)];
        }
        across[at(x, y, k)] = sum;
      }
    }
  }
  std::vector<uint8_t> out(image.pixels.size());
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      for (int k = 0; k < ch; ++k) {
        float blurred = 0;
        for (int i = -reach; i <= reach; ++i) {
          blurred += kernel[static_cast<size_t>(i + reach)] * across[at(x, y + i, k)];
        }
        const size_t index = at(x, y, k);
        const int original = image.pixels[index];
        const double diff = original - blurred;
        double value = original;
        if (std::fabs(diff) >= threshold) value += amount * diff;
        out[index] = static_cast<uint8_t>(std::clamp(std::lround(value), 0L, 255L));
      }
    }
  }
  image.pixels = std::move(out);
}

// The smallest DCT scaling of the decoder that still leaves at least the
// target size, so that the area averaging does the final step.
tjscalingfactor ChooseScaling(int width, int height, int target_width, int target_height) {
  tjscalingfactor best{1, 1};
  int count = 0;
  const tjscalingfactor* factors = tjGetScalingFactors(&count);
  for (int i = 0; factors != nullptr && i < count; ++i) {
    const tjscalingfactor f = factors[i];
    if (f.num > f.denom) continue;
    if (TJSCALED(width, f) >= target_width && TJSCALED(height, f) >= target_height &&
        TJSCALED(width, f) < TJSCALED(width, best)) {
      best = f;
    }
  }
  return best;
}

}  // namespace

std::string CoverHash(std::string_view bytes) {
  return Md5Hex(bytes, HexCase::kUpper);
}

PreparedCover PrepareCover(std::string_view stored, int max_side) {
  PreparedCover result;
  const auto undecodable = [&] {
    result.outcome = CoverOutcome::kUndecodable;
    result.bytes.assign(stored);
    return result;
  };
  if (stored.empty() || stored.size() > std::numeric_limits<unsigned long>::max() ||
      max_side <= 0) {
    return undecodable();
  }
  const auto* data = reinterpret_cast<const unsigned char*>(stored.data());
  const auto size = static_cast<unsigned long>(stored.size());

  TjHandle decoder(tjInitDecompress());
  if (!decoder) return result;
  int width = 0, height = 0, subsampling = 0, colorspace = 0;
  if (tjDecompressHeader3(decoder.get(), data, size, &width, &height, &subsampling, &colorspace) !=
          0 ||
      width <= 0 || height <= 0) {
    return undecodable();
  }
  if (width <= max_side && height <= max_side) {
    result.outcome = CoverOutcome::kKept;
    result.bytes.assign(stored);
    result.width = width;
    result.height = height;
    return result;
  }

  const int longer = std::max(width, height);
  const int shorter = std::min(width, height);
  const int scaled_shorter =
      std::max(1, static_cast<int>(static_cast<int64_t>(shorter) * max_side / longer));
  const int target_width = width >= height ? max_side : scaled_shorter;
  const int target_height = width >= height ? scaled_shorter : max_side;

  const tjscalingfactor factor = ChooseScaling(width, height, target_width, target_height);
  Image decoded;
  decoded.width = TJSCALED(width, factor);
  decoded.height = TJSCALED(height, factor);
  if (static_cast<int64_t>(decoded.width) * decoded.height > kMaxDecodedPixels) return result;
  const bool grey = subsampling == TJSAMP_GRAY;
  decoded.channels = grey ? 1 : 3;
  decoded.pixels.resize(static_cast<size_t>(decoded.width) * decoded.height * decoded.channels);
  if (tjDecompress2(decoder.get(), data, size, decoded.pixels.data(), decoded.width, 0,
                    decoded.height, grey ? TJPF_GRAY : TJPF_RGB,
                    TJFLAG_ACCURATEDCT | TJFLAG_STOPONWARNING | TJFLAG_LIMITSCANS) != 0) {
    return undecodable();
  }

  Image small = Resample(decoded, target_width, target_height);
  decoded = Image{};
  UnsharpMask(small, kSharpenAmount, kSharpenRadius, kSharpenThreshold);

  TjHandle encoder(tjInitCompress());
  if (!encoder) return result;
  unsigned char* jpeg = nullptr;
  unsigned long jpeg_size = 0;
  const int status = tjCompress2(encoder.get(), small.pixels.data(), small.width, 0, small.height,
                                 grey ? TJPF_GRAY : TJPF_RGB, &jpeg, &jpeg_size,
                                 grey ? TJSAMP_GRAY : TJSAMP_420, kJpegQuality, TJFLAG_ACCURATEDCT);
  if (status == 0 && jpeg != nullptr) {
    result.outcome = CoverOutcome::kScaled;
    result.bytes.assign(reinterpret_cast<const char*>(jpeg), jpeg_size);
    result.width = small.width;
    result.height = small.height;
  }
  tjFree(jpeg);
  return result;
}

}  // namespace dischive
