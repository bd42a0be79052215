// Texts handed to callers, who free them with the C runtime.
#pragma once

#include <cstdlib>
#include <cstring>
#include <new>

namespace quillon::tsl {

// A malloc'd copy of |text| (null stays null); throws std::bad_alloc when
// memory runs out.
inline char* MallocText(const char* text) {
  if (!text) return nullptr;
  const size_t n = std::strlen(text);
  char* out = static_cast<char*>(std::malloc(n + 1));
  if (!out) throw std::bad_alloc();
  std::memcpy(out, text, n + 1);
  return out;
}

}  // namespace quillon::tsl
