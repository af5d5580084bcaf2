// A one-line progress display on standard error, drawn only when standard error
// is a terminal and redrawn at most ten times a second.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "dischive/http.h"

namespace dischive::cli {

class ProgressBar {
 public:
  /// `total` 0 means unknown: the display then shows the count only.
  ProgressBar(std::string label, uint64_t total, bool enabled);
  ~ProgressBar();
  ProgressBar(const ProgressBar&) = delete;
  ProgressBar& operator=(const ProgressBar&) = delete;

  void Update(uint64_t done, std::string_view note = {});
  void SetTotal(uint64_t total) { total_ = total; }
  /// Clears the line; called by the destructor too.
  void Finish();

  /// Formats one line (for tests): "label [#####     ]  50% 5/10 note".
  static std::string Render(std::string_view label, uint64_t done, uint64_t total,
                            std::string_view note, size_t width);

 private:
  std::string label_;
  uint64_t total_;
  bool enabled_;
  bool drawn_ = false;
  std::chrono::steady_clock::time_point last_draw_{};
};

/// Performs `request` with a "Downloading" bar on standard error when `show`
/// is set (the bar follows the body as it arrives).
HResult PerformWithProgress(HttpRequest& request, bool show);

}  // namespace dischive::cli
