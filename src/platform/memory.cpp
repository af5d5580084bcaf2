#include "platform/memory.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

namespace dischive::platform {

void AdviseSequentialFill(void* data, size_t size) {
#ifdef MADV_HUGEPAGE
  const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  if (page == 0 || data == nullptr) return;
  // Only whole pages inside the buffer may be advised.
  const auto begin = (reinterpret_cast<uintptr_t>(data) + page - 1) & ~(page - 1);
  const auto end = (reinterpret_cast<uintptr_t>(data) + size) & ~(page - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#else
  (void)data;
  (void)size;
#endif
}

}  // namespace dischive::platform
