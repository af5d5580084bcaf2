#include "progress.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

namespace dischive::cli {
namespace {

size_t TerminalWidth() {
  winsize ws{};
  if (::ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 20) return ws.ws_col;
  return 80;
}

}  // namespace

ProgressBar::ProgressBar(std::string label, uint64_t total, bool enabled)
    : label_(std::move(label)), total_(total), enabled_(enabled) {}

ProgressBar::~ProgressBar() {
  Finish();
}

std::string ProgressBar::Render(std::string_view label, uint64_t done, uint64_t total,
                                std::string_view note, size_t width) {
  std::string line(label);
  if (total > 0) {
    if (done > total) done = total;
    constexpr size_t kBar = 24;
    const size_t filled = static_cast<size_t>(done * kBar / total);
    line += fmt::format(" [{}{}] {:3d}% {}/{}", std::string(filled, '#'),
                        std::string(kBar - filled, ' '), done * 100 / total, done, total);
  } else {
    line += fmt::format(" {}", done);
  }
  if (!note.empty()) {
    line += ' ';
    line += note;
  }
  if (line.size() > width - 1) line.resize(width - 1);
  return line;
}

void ProgressBar::Update(uint64_t done, std::string_view note) {
  if (!enabled_) return;
  const auto now = std::chrono::steady_clock::now();
  const bool last = total_ > 0 && done >= total_;
  if (drawn_ && !last && now - last_draw_ < std::chrono::milliseconds(100)) return;
  last_draw_ = now;
  const std::string line = Render(label_, done, total_, note, TerminalWidth());
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
  std::fflush(stderr);
  drawn_ = true;
}

void ProgressBar::Finish() {
  if (drawn_) {
    std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
    drawn_ = false;
  }
}

HResult PerformWithProgress(HttpRequest& request, bool show) {
  ProgressBar bar("Downloading", 0, show);
  request.progress = [&bar](uint64_t received, uint64_t expected) {
    bar.SetTotal(expected);
    bar.Update(received);
    return true;
  };
  const HResult result = PerformHttpRequest(request);
  request.progress = {};
  bar.Finish();
  return result;
}

}  // namespace dischive::cli
