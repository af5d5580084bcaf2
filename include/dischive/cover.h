// Cover images for the collection service: the hash that names a cover and the
// small JPEG that is uploaded in place of a large stored image.
#pragma once

#include <string>
#include <string_view>

namespace dischive {

/// The longest side of an uploaded cover, in pixels.
inline constexpr int kCoverUploadSide = 160;

/// The name of a cover: the MD5 of its bytes as 32 upper-case hexadecimal digits.
std::string CoverHash(std::string_view bytes);

enum class CoverOutcome {
  kKept,           ///< decoded, small enough: the stored bytes are used as they are
  kScaled,         ///< decoded and made smaller: `bytes` is a new JPEG
  kUndecodable,    ///< not a JPEG that can be decoded: the stored bytes are used
  kScalingFailed,  ///< decoded but could not be scaled or encoded: no bytes
};

struct PreparedCover {
  CoverOutcome outcome = CoverOutcome::kScalingFailed;
  std::string bytes;  ///< the bytes to upload and hash (empty when scaling failed)
  int width = 0;      ///< size of the uploaded image (0 when undecodable or failed)
  int height = 0;
};

/// Decodes a stored cover and, when either side exceeds `max_side`, scales it so
/// that its longer side becomes `max_side` (the shorter one shorter * max_side /
/// longer, at least 1), sharpens it with an unsharp mask (amount 30 %, radius
/// 0.5, threshold 3) and encodes it as JPEG at quality 90.
PreparedCover PrepareCover(std::string_view stored, int max_side = kCoverUploadSide);

}  // namespace dischive
