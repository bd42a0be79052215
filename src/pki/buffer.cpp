#include "quillon32/buffer.h"

#include <openssl/crypto.h>

#include "platform/files.h"

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";

int DecodeChar(unsigned char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool IsSpace(unsigned char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// Decodes Base64 text, skipping blanks and line breaks; '=' only as the final
// padding of the last quantum.
bool DecodeBase64(const char* text, size_t length, std::vector<unsigned char>* out) {
  out->clear();
  out->reserve(length / 4 * 3 + 3);
  uint32_t acc = 0;
  int have = 0;
  int pad = 0;
  for (size_t i = 0; i < length; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (IsSpace(c)) continue;
    if (c == '=') {
      ++pad;
      if (pad > 2) return false;
      continue;
    }
    if (pad) return false;  // data after padding
    const int v = DecodeChar(c);
    if (v < 0) return false;
    acc = (acc << 6) | static_cast<uint32_t>(v);
    if (++have == 4) {
      out->push_back(static_cast<unsigned char>(acc >> 16));
      out->push_back(static_cast<unsigned char>(acc >> 8));
      out->push_back(static_cast<unsigned char>(acc));
      acc = 0;
      have = 0;
    }
  }
  // have + pad must complete a quantum when padding is present.
  if (pad && have + pad != 4) return false;
  if (have == 1) return false;
  if (have == 2) {
    out->push_back(static_cast<unsigned char>(acc >> 4));
  } else if (have == 3) {
    out->push_back(static_cast<unsigned char>(acc >> 10));
    out->push_back(static_cast<unsigned char>(acc >> 2));
  }
  return true;
}

}  // namespace

void Buffer::append(const void* data, size_t length) {
  if (length == 0) return;
  const auto* p = static_cast<const unsigned char*>(data);
  bytes_.insert(bytes_.end(), p, p + length);
}

bool Buffer::readFile(const char* path) {
  if (!path || !quillon::platform::ReadWholeFile(path, &bytes_)) {
    bytes_.clear();
    return false;
  }
  return true;
}

bool Buffer::writeFile(const char* path, bool lock) const {
  if (!path) return false;
  return quillon::platform::WriteFileAtomic(path, bytes_.data(), bytes_.size(), lock);
}

std::string Buffer::toBase64() const {
  std::string out;
  out.reserve((bytes_.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes_.size(); i += 3) {
    const uint32_t v = (uint32_t{bytes_[i]} << 16) | (uint32_t{bytes_[i + 1]} << 8) | bytes_[i + 2];
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += kAlphabet[(v >> 6) & 63];
    out += kAlphabet[v & 63];
  }
  const size_t rest = bytes_.size() - i;
  if (rest) {
    uint32_t v = uint32_t{bytes_[i]} << 16;
    if (rest == 2) v |= uint32_t{bytes_[i + 1]} << 8;
    out += kAlphabet[(v >> 18) & 63];
    out += kAlphabet[(v >> 12) & 63];
    out += rest == 2 ? kAlphabet[(v >> 6) & 63] : kAlphabet[64];
    out += kAlphabet[64];
  }
  return out;
}

bool Buffer::fromBase64(const char* text, size_t length) {
  std::vector<unsigned char> decoded;
  if (!text || !DecodeBase64(text, length, &decoded)) return false;
  bytes_ = std::move(decoded);
  return true;
}

std::string Buffer::toPEM(const char* label) const {
  const std::string body = toBase64();
  std::string out = "-----BEGIN ";
  out += label;
  out += "-----\r\n";
  for (size_t i = 0; i < body.size(); i += 64) {
    out.append(body, i, 64);
    out += "\r\n";
  }
  out += "-----END ";
  out += label;
  out += "-----\r\n";
  return out;
}

bool Buffer::readPEMBlock(const std::string& text, size_t* position, std::string* label) {
  static constexpr std::string_view kBegin = "-----BEGIN ";
  static constexpr std::string_view kDashes = "-----";
  const size_t begin = text.find(kBegin, *position);
  if (begin == std::string::npos) {
    *position = text.size();
    return false;
  }
  const size_t label_start = begin + kBegin.size();
  const size_t label_end = text.find(kDashes, label_start);
  const size_t line_end = text.find('\n', label_start);
  if (label_end == std::string::npos || (line_end != std::string::npos && line_end < label_end)) {
    *position = line_end == std::string::npos ? text.size() : line_end + 1;
    return false;
  }
  const std::string found = text.substr(label_start, label_end - label_start);
  const size_t body_start = label_end + kDashes.size();
  const std::string end_line = "-----END " + found + "-----";
  const size_t end = text.find(end_line, body_start);
  if (end == std::string::npos) {
    *position = text.size();
    return false;
  }
  *position = end + end_line.size();
  std::vector<unsigned char> decoded;
  if (!DecodeBase64(text.data() + body_start, end - body_start, &decoded) || decoded.empty()) {
    return false;
  }
  bytes_ = std::move(decoded);
  if (label) *label = found;
  return true;
}

bool Buffer::normaliseToDER() {
  if (bytes_.empty()) return true;
  if (bytes_[0] == 'M') {
    std::vector<unsigned char> decoded;
    if (DecodeBase64(reinterpret_cast<const char*>(bytes_.data()), bytes_.size(), &decoded)) {
      bytes_ = std::move(decoded);
      return true;
    }
    // Not Base64 after all: fall through to the armoured form.
  }
  size_t i = 0;
  while (i < bytes_.size() && (bytes_[i] == '\r' || bytes_[i] == '\n')) ++i;
  if (i < bytes_.size() && bytes_[i] == '-') {
    while (i < bytes_.size() && bytes_[i] != '\n') ++i;  // the armour line
    while (i < bytes_.size() && (bytes_[i] == '\r' || bytes_[i] == '\n')) ++i;
  }
  if (i >= bytes_.size() || bytes_[i] != 'M') return true;  // left as it is
  size_t end = i;
  while (end < bytes_.size() && bytes_[end] != '-') ++end;
  std::vector<unsigned char> decoded;
  if (!DecodeBase64(reinterpret_cast<const char*>(bytes_.data() + i), end - i, &decoded)) {
    bytes_.clear();
    return false;
  }
  bytes_ = std::move(decoded);
  return true;
}

SecureBuffer::~SecureBuffer() { wipe(); }

void SecureBuffer::wipe() {
  if (!bytes().empty()) OPENSSL_cleanse(bytes().data(), bytes().size());
  // Also the spare capacity a previous, longer content may have used.
  if (bytes().capacity() > bytes().size()) {
    const size_t used = bytes().size();
    bytes().resize(bytes().capacity());
    OPENSSL_cleanse(bytes().data() + used, bytes().size() - used);
  }
  bytes().clear();
}
