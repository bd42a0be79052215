// Buffer: the growable byte array every object of the PKI layer is built on,
// with Base64, PEM armour and whole-file reading and writing.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "quillon32/export.h"

class QUILLON32_API Buffer {
 public:
  Buffer() = default;
  Buffer(const unsigned char* data, size_t length) : bytes_(data, data + length) {}
  explicit Buffer(std::vector<unsigned char> bytes) : bytes_(std::move(bytes)) {}
  Buffer(const Buffer&) = default;
  Buffer(Buffer&&) noexcept = default;
  Buffer& operator=(const Buffer&) = default;
  Buffer& operator=(Buffer&&) noexcept = default;
  virtual ~Buffer() = default;

  void clear() { bytes_.clear(); }
  void append(const void* data, size_t length);
  void append(const std::string& text) { append(text.data(), text.size()); }
  // Makes room for at least |capacity| bytes without changing the content.
  void reserve(size_t capacity) { bytes_.reserve(capacity); }

  const unsigned char* data() const { return bytes_.data(); }
  unsigned char* data() { return bytes_.data(); }
  size_t size() const { return bytes_.size(); }
  bool empty() const { return bytes_.empty(); }
  const std::vector<unsigned char>& bytes() const { return bytes_; }
  std::vector<unsigned char>& bytes() { return bytes_; }

  // Replaces the content with the whole file at |path| (UTF-8). False, and
  // the buffer emptied, when the file cannot be read.
  bool readFile(const char* path);
  // Writes the content to |path|, replacing any old file atomically: a crash
  // leaves the old file or the new one, never a part. With |lock| an exclusive
  // lock is held on the file for the duration of the write. False, old file
  // untouched, on failure.
  bool writeFile(const char* path, bool lock = false) const;

  // Base64 of the content, alphabet
  // "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=",
  // padded, on one line.
  std::string toBase64() const;
  // Replaces the content with the decoding of |text|. Line breaks and blanks
  // are skipped; padding is optional at the very end. False, content
  // unchanged, on any other character or a malformed length.
  bool fromBase64(const char* text, size_t length);

  // PEM armour: "-----BEGIN " label "-----\r\n", the Base64 body in lines of
  // 64 characters ending "\r\n", then "-----END " label "-----\r\n".
  std::string toPEM(const char* label) const;

  // Reads the next PEM block of |text| starting at *position: finds the next
  // "-----BEGIN <label>-----" line, decodes the Base64 up to the matching
  // "-----END <label>-----" and replaces the content with it. On success
  // *position is moved past the block and *label (when given) set. False when
  // no further BEGIN line exists (*position then at the end) or when the
  // block is malformed (*position moved past the bad block so a caller can
  // tell the two apart with atEnd()).
  bool readPEMBlock(const std::string& text, size_t* position, std::string* label = nullptr);

  // Brings a downloaded body to DER: a body that begins with "M" (Base64 of a
  // DER SEQUENCE) is decoded in place; otherwise, after leading CR/LF, a PEM
  // armour line is skipped and the Base64 text up to the next "-" decoded,
  // provided it begins with "M" (else the body is left as it is). A decoding
  // failure empties the buffer. A DER body is left untouched. Returns false
  // when the buffer was emptied.
  bool normaliseToDER();

 private:
  std::vector<unsigned char> bytes_;
};

// A Buffer that overwrites its bytes with zeros before releasing them.
class QUILLON32_API SecureBuffer : public Buffer {
 public:
  SecureBuffer() = default;
  explicit SecureBuffer(size_t capacity) { reserve(capacity); }
  SecureBuffer(const SecureBuffer&) = default;
  SecureBuffer& operator=(const SecureBuffer&) = default;
  ~SecureBuffer() override;
  // Wipes and empties the content.
  void wipe();
};
