// PEM and Base64 readers over arbitrary text.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "quillon32/buffer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  Buffer b;
  size_t pos = 0;
  int guard = 0;
  while (pos < text.size() && ++guard < 10000) {
    const size_t before = pos;
    std::string label;
    if (b.readPEMBlock(text, &pos, &label)) {
      // A decoded block re-armours and reads back to the same bytes.
      const std::string pem = b.toPEM(label.c_str());
      Buffer again;
      size_t p2 = 0;
      if (!again.readPEMBlock(pem, &p2) || again.bytes() != b.bytes()) std::abort();
    }
    if (pos <= before) std::abort();  // the reader must always make progress
  }

  Buffer base64;
  if (base64.fromBase64(text.data(), text.size())) {
    const std::string encoded = base64.toBase64();
    Buffer back;
    if (!back.fromBase64(encoded.data(), encoded.size()) || back.bytes() != base64.bytes())
      std::abort();
  }

  Buffer body(data, size);
  (void)body.normaliseToDER();
  return 0;
}
