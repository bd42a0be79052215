#include "support/der_writer.h"

#include <stdexcept>

namespace quillon::testing {

std::vector<uint8_t> DerWriter::EncodeLength(size_t length) {
  std::vector<uint8_t> out;
  if (length < 0x80) {
    out.push_back(static_cast<uint8_t>(length));
    return out;
  }
  uint8_t tmp[sizeof(size_t)];
  int n = 0;
  for (size_t v = length; v != 0; v >>= 8) tmp[n++] = static_cast<uint8_t>(v & 0xFF);
  out.push_back(static_cast<uint8_t>(0x80 | n));
  while (n > 0) out.push_back(tmp[--n]);
  return out;
}

void DerWriter::Begin(uint8_t tag) {
  out_.push_back(tag);
  open_.push_back(out_.size());
}

void DerWriter::End() {
  if (open_.empty()) throw std::logic_error("DerWriter::End without Begin");
  const size_t start = open_.back();
  open_.pop_back();
  const auto enc = EncodeLength(out_.size() - start);
  out_.insert(out_.begin() + static_cast<std::ptrdiff_t>(start), enc.begin(), enc.end());
}

void DerWriter::Tlv(uint8_t tag, std::span<const uint8_t> content) {
  out_.push_back(tag);
  Raw(EncodeLength(content.size()));
  Raw(content);
}

void DerWriter::Tlv(uint8_t tag, std::string_view content) {
  Tlv(tag, std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(content.data()),
                                    content.size()));
}

void DerWriter::Raw(std::span<const uint8_t> bytes) {
  out_.insert(out_.end(), bytes.begin(), bytes.end());
}

void DerWriter::Integer(std::span<const uint8_t> content) { Tlv(der::kInteger, content); }

std::vector<uint8_t> DerWriter::IntegerContent(int64_t value) {
  std::vector<uint8_t> b(8);
  uint64_t u = static_cast<uint64_t>(value);
  for (int i = 7; i >= 0; --i, u >>= 8) b[static_cast<size_t>(i)] = static_cast<uint8_t>(u & 0xFF);
  size_t skip = 0;
  while (skip < 7 && ((b[skip] == 0x00 && !(b[skip + 1] & 0x80)) ||
                      (b[skip] == 0xFF && (b[skip + 1] & 0x80))))
    ++skip;
  return {b.begin() + static_cast<std::ptrdiff_t>(skip), b.end()};
}

std::vector<uint8_t> DerWriter::UnsignedContent(uint64_t value) {
  std::vector<uint8_t> b(9);
  for (int i = 8; i >= 1; --i, value >>= 8) b[static_cast<size_t>(i)] = static_cast<uint8_t>(value & 0xFF);
  size_t skip = 0;
  while (skip < 8 && b[skip] == 0x00 && !(b[skip + 1] & 0x80)) ++skip;
  return {b.begin() + static_cast<std::ptrdiff_t>(skip), b.end()};
}

void DerWriter::Integer(int64_t value) { Integer(IntegerContent(value)); }

void DerWriter::Enumerated(int64_t value) { Tlv(der::kEnumerated, IntegerContent(value)); }

void DerWriter::Boolean(bool value) {
  const uint8_t v = value ? 0xFF : 0x00;
  Tlv(der::kBoolean, std::span<const uint8_t>(&v, 1));
}

void DerWriter::Null() {
  out_.push_back(der::kNull);
  out_.push_back(0x00);
}

std::vector<uint8_t> DerWriter::EncodeOid(std::string_view dotted) {
  std::vector<uint64_t> arcs;
  uint64_t cur = 0;
  bool have = false;
  for (char c : dotted) {
    if (c == '.') {
      if (!have) throw std::invalid_argument("bad OID: " + std::string(dotted));
      arcs.push_back(cur);
      cur = 0;
      have = false;
    } else if (c >= '0' && c <= '9') {
      cur = cur * 10 + static_cast<uint64_t>(c - '0');
      have = true;
    } else {
      throw std::invalid_argument("bad OID: " + std::string(dotted));
    }
  }
  if (!have) throw std::invalid_argument("bad OID: " + std::string(dotted));
  arcs.push_back(cur);
  if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] > 39))
    throw std::invalid_argument("bad OID: " + std::string(dotted));
  std::vector<uint8_t> out;
  auto put = [&out](uint64_t v) {
    uint8_t tmp[10];
    int n = 0;
    do {
      tmp[n++] = static_cast<uint8_t>(v & 0x7F);
      v >>= 7;
    } while (v != 0);
    while (n > 1) out.push_back(static_cast<uint8_t>(tmp[--n] | 0x80));
    out.push_back(tmp[0]);
  };
  put(arcs[0] * 40 + arcs[1]);
  for (size_t i = 2; i < arcs.size(); ++i) put(arcs[i]);
  return out;
}

void DerWriter::Oid(std::string_view dotted) { Tlv(der::kOid, EncodeOid(dotted)); }

void DerWriter::OctetString(std::span<const uint8_t> content) { Tlv(der::kOctetString, content); }

void DerWriter::BitString(std::span<const uint8_t> bytes) {
  Begin(der::kBitString);
  out_.push_back(0);  // no unused bits
  Raw(bytes);
  End();
}

void DerWriter::NamedBits(std::span<const int> bits) {
  int highest = -1;
  for (int b : bits) {
    if (b < 0) throw std::invalid_argument("negative bit number");
    if (b > highest) highest = b;
  }
  std::vector<uint8_t> content;
  if (highest < 0) {
    content.push_back(0);  // empty bit string
  } else {
    std::vector<uint8_t> v(static_cast<size_t>(highest / 8 + 1), 0);
    for (int b : bits) v[static_cast<size_t>(b / 8)] |= static_cast<uint8_t>(0x80 >> (b % 8));
    content.push_back(static_cast<uint8_t>(7 - highest % 8));
    content.insert(content.end(), v.begin(), v.end());
  }
  Tlv(der::kBitString, content);
}

void DerWriter::TimeDigits(time_t t, bool fourDigitYear, uint8_t tag) {
  struct tm tm {};
  if (gmtime_r(&t, &tm) == nullptr) throw std::invalid_argument("time out of range");
  int year = tm.tm_year + 1900;
  if (year < 0 || year > 9999) throw std::invalid_argument("year out of range");
  uint8_t buf[15];
  size_t n = 0;
  auto two = [&](int v) {
    buf[n++] = static_cast<uint8_t>('0' + v / 10);
    buf[n++] = static_cast<uint8_t>('0' + v % 10);
  };
  if (fourDigitYear) two(year / 100);
  two(year % 100);
  two(tm.tm_mon + 1);
  two(tm.tm_mday);
  two(tm.tm_hour);
  two(tm.tm_min);
  two(tm.tm_sec);
  buf[n++] = 'Z';
  Tlv(tag, std::span<const uint8_t>(buf, n));
}

void DerWriter::UtcTime(time_t t) { TimeDigits(t, false, der::kUtcTime); }
void DerWriter::GeneralizedTime(time_t t) { TimeDigits(t, true, der::kGeneralizedTime); }

void DerWriter::Time(time_t t, bool forceGeneralized) {
  struct tm tm {};
  if (gmtime_r(&t, &tm) == nullptr) throw std::invalid_argument("time out of range");
  int year = tm.tm_year + 1900;
  if (!forceGeneralized && year >= 1950 && year <= 2049)
    UtcTime(t);
  else
    GeneralizedTime(t);
}

std::vector<uint8_t> DerWriter::Take() {
  if (!open_.empty()) throw std::logic_error("DerWriter::Take with open values");
  return std::move(out_);
}

}  // namespace quillon::testing
