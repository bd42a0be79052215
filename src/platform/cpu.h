// Hints for the hot loops, spelled for each compiler the library is built
// with: a cache-line prefetch, and inlining that must happen.
#pragma once

#if defined(_MSC_VER) && !defined(__clang__)
#include <xmmintrin.h>
#define QUILLON_ALWAYS_INLINE __forceinline
#else
#define QUILLON_ALWAYS_INLINE [[gnu::always_inline]] inline
#endif

namespace quillon::platform {

// Asks for the cache line holding |p| to be fetched ahead of a read.
inline void Prefetch(const void* p) {
#if defined(_MSC_VER) && !defined(__clang__)
  _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
#else
  __builtin_prefetch(p);
#endif
}

// The same, ahead of a write.
inline void PrefetchForWrite(const void* p) {
#if defined(_MSC_VER) && !defined(__clang__)
  _mm_prefetch(static_cast<const char*>(p), _MM_HINT_T0);
#else
  __builtin_prefetch(p, 1);
#endif
}

}  // namespace quillon::platform
