#include "platform/large_memory.h"

#include <sys/mman.h>

#include <cstdint>

namespace quillon::platform {

namespace {
size_t RoundUp(size_t size) { return (size + kLargeBlock - 1) & ~(kLargeBlock - 1); }
}  // namespace

void* AllocateLarge(size_t size) noexcept {
  if (size < kLargeBlock) return ::operator new(size, std::nothrow);
  const size_t length = RoundUp(size);
  if (length < size || length + kLargeBlock < length) return nullptr;
  // Map one unit more than needed, then trim to a 2 MiB-aligned run: huge
  // pages can only back aligned ranges.
  void* raw = mmap(nullptr, length + kLargeBlock, PROT_READ | PROT_WRITE,
                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (raw == MAP_FAILED) return nullptr;
  const uintptr_t start = reinterpret_cast<uintptr_t>(raw);
  const uintptr_t aligned = (start + kLargeBlock - 1) & ~uintptr_t{kLargeBlock - 1};
  if (aligned > start) munmap(raw, aligned - start);
  const size_t tail = start + length + kLargeBlock - (aligned + length);
  if (tail > 0) munmap(reinterpret_cast<void*>(aligned + length), tail);
  void* block = reinterpret_cast<void*>(aligned);
  madvise(block, length, MADV_HUGEPAGE);  // a hint; failure leaves ordinary pages
  return block;
}

void FreeLarge(void* block, size_t size) noexcept {
  if (block == nullptr) return;
  if (size < kLargeBlock) {
    ::operator delete(block);
    return;
  }
  munmap(block, RoundUp(size));
}

size_t LargeFootprint(size_t size) noexcept { return size < kLargeBlock ? size : RoundUp(size); }

}  // namespace quillon::platform
