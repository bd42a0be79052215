// ByteView: a non-owning view of bytes held by a PKI object, valid while the
// object lives and is not modified.
#pragma once

#include <cstddef>

struct ByteView {
  const unsigned char* data = nullptr;
  size_t size = 0;
  bool empty() const { return size == 0; }
};
