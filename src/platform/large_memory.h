// Memory for large, long-lived buffers: the bytes and index of a CRL with
// millions of entries.
//
// Blocks of at least kLargeBlock bytes are mapped from the system directly,
// aligned to 2 MiB and offered to the kernel for transparent huge pages.
// With 4 KiB pages a 40 MB CRL costs ten thousand page faults to fill and a
// TLB miss on nearly every random look-up; with huge pages, a few dozen and
// almost none. Where huge pages are not available the mapping works as an
// ordinary one. Smaller blocks come from operator new.
#pragma once

#include <cstddef>
#include <new>
#include <utility>

namespace quillon::platform {

inline constexpr size_t kLargeBlock = size_t{2} << 20;

// |size| bytes, or nullptr when the system has none to give.
void* AllocateLarge(size_t size) noexcept;
// Whether a block of |size| bytes from AllocateLarge() comes filled with
// zeros, as fresh pages from the system do: a table that starts empty then
// needs no clearing, which would touch every page once more.
inline bool ComesZeroed(size_t size) noexcept { return size >= kLargeBlock; }
// Releases a block from AllocateLarge(size) with the same |size|.
void FreeLarge(void* block, size_t size) noexcept;
// The bytes a block of |size| really takes: whole 2 MiB units for a large
// block, |size| otherwise.
size_t LargeFootprint(size_t size) noexcept;

// A standard allocator over AllocateLarge, for std::vector.
template <typename T>
struct LargeAllocator {
  using value_type = T;
  LargeAllocator() = default;
  template <typename U>
  LargeAllocator(const LargeAllocator<U>&) noexcept {}  // NOLINT: rebinding
  T* allocate(size_t n) {
    if (n > static_cast<size_t>(-1) / sizeof(T)) throw std::bad_array_new_length();
    void* p = AllocateLarge(n * sizeof(T));
    if (p == nullptr) throw std::bad_alloc();
    return static_cast<T*>(p);
  }
  void deallocate(T* p, size_t n) noexcept { FreeLarge(p, n * sizeof(T)); }
  // resize() leaves new elements default-initialised (for bytes: unset), so
  // that a buffer about to be overwritten whole is not cleared first.
  template <typename U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <typename U, typename... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
  template <typename U>
  bool operator==(const LargeAllocator<U>&) const noexcept {
    return true;
  }
};

}  // namespace quillon::platform
