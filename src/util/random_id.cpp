#include "dischive/random_id.h"

#include <sys/random.h>

#include <atomic>
#include <cstdlib>

#include "dischive/codec.h"

namespace dischive {
namespace {

std::atomic<bool> g_force_fallback{false};

bool SystemRandom(std::array<uint8_t, 8>& bytes) {
  size_t got = 0;
  while (got < bytes.size()) {
    const ssize_t n = getrandom(bytes.data() + got, bytes.size() - got, 0);
    if (n <= 0) return false;  // EINTR before any byte, or no source: use the fallback
    got += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

std::array<uint8_t, 8> RandomIdentifierBytes() {
  std::array<uint8_t, 8> bytes{};
  if (!g_force_fallback.load(std::memory_order_relaxed) && SystemRandom(bytes)) return bytes;
  // The fallback scales a 15-bit pseudo-random value (the range of the
  // original platform's rand()) to 0..256 and keeps the low byte.
  for (uint8_t& b : bytes) {
    const long value = (static_cast<long>(std::rand() % 32768) << 8) / 32767;
    b = static_cast<uint8_t>(value);
  }
  return bytes;
}

std::string NewRandomIdentifier() {
  return HexEncode(RandomIdentifierBytes(), HexCase::kUpper);
}

bool ForceRandomFallback(bool force) {
  return g_force_fallback.exchange(force);
}

}  // namespace dischive
