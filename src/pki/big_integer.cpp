// BigInteger on an OpenSSL BIGNUM.
//
// BIGNUM keeps sign and magnitude; ASN.1 INTEGER content is big-endian two's
// complement. OpenSSL 3.0 has no signed conversions, so the two's complement
// forms are built here byte by byte.
//
// A null bn_ is read as zero. It only happens when an allocation failed (in a
// constructor, or when a moved-from object could not get a fresh BIGNUM), and
// it keeps every operation, the destructor and reuse safe without throwing.

#include "quillon32/big_integer.h"

#include <openssl/bn.h>

#include <climits>
#include <cstring>
#include <utility>

#include "pki/der.h"
#include "pki/x509_common.h"

namespace {

// Negates a big-endian two's complement (or magnitude) byte string in place:
// invert every byte, then add one.
void NegateInPlace(std::vector<unsigned char>* bytes) {
  for (auto& b : *bytes) b = static_cast<unsigned char>(~b);
  for (size_t i = bytes->size(); i-- > 0;) {
    if (++(*bytes)[i] != 0) break;
  }
}

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The magnitude as minimal big-endian bytes; empty for zero.
std::vector<unsigned char> Magnitude(const BIGNUM* bn) {
  if (bn == nullptr) return {};
  std::vector<unsigned char> out(static_cast<size_t>(BN_num_bytes(bn)));
  if (!out.empty()) BN_bn2bin(bn, out.data());
  return out;
}

}  // namespace

BigInteger::BigInteger() : bn_(BN_new()) {}

BigInteger::BigInteger(long value) : bn_(BN_new()) {
  if (bn_ == nullptr) return;
  // The magnitude in unsigned arithmetic, so that LONG_MIN does not overflow.
  const unsigned long magnitude =
      value < 0 ? 0UL - static_cast<unsigned long>(value) : static_cast<unsigned long>(value);
  if (!BN_set_word(bn_, magnitude)) {
    BN_zero(bn_);
    return;
  }
  BN_set_negative(bn_, value < 0 ? 1 : 0);
}

BigInteger::BigInteger(const BigInteger& other)
    : bn_(other.bn_ != nullptr ? BN_dup(other.bn_) : BN_new()) {}

BigInteger::BigInteger(BigInteger&& other) noexcept : bn_(other.bn_) {
  // The moved-from object is left as zero on a BIGNUM of its own.
  other.bn_ = BN_new();
}

BigInteger& BigInteger::operator=(const BigInteger& other) {
  if (this == &other) return *this;
  if (other.bn_ == nullptr) {
    if (bn_ != nullptr) BN_zero(bn_);
    return *this;
  }
  if (bn_ == nullptr) {
    bn_ = BN_dup(other.bn_);
  } else if (BN_copy(bn_, other.bn_) == nullptr) {
    BN_zero(bn_);
  }
  return *this;
}

BigInteger& BigInteger::operator=(BigInteger&& other) noexcept {
  if (this == &other) return *this;
  // Hand our old BIGNUM to |other| and clear it there: no allocation needed.
  std::swap(bn_, other.bn_);
  if (other.bn_ != nullptr) BN_zero(other.bn_);
  return *this;
}

BigInteger::~BigInteger() { BN_free(bn_); }

bool BigInteger::fromDerContent(const unsigned char* content, size_t length) {
  if (content == nullptr || length == 0 || length > static_cast<size_t>(INT_MAX)) return false;
  const bool negative = (content[0] & 0x80) != 0;
  BIGNUM* value = nullptr;
  if (negative) {
    // The magnitude of a negative value is the two's complement of its octets.
    std::vector<unsigned char> magnitude(content, content + length);
    NegateInPlace(&magnitude);
    value = BN_bin2bn(magnitude.data(), static_cast<int>(length), nullptr);
    if (value == nullptr) return false;
    BN_set_negative(value, 1);
  } else {
    value = BN_bin2bn(content, static_cast<int>(length), nullptr);
    if (value == nullptr) return false;
  }
  BN_free(bn_);
  bn_ = value;
  return true;
}

bool BigInteger::decode(const unsigned char* der, size_t length) {
  if (der == nullptr) return false;
  // Lengths in BER as well, to match the leniency of the content octets.
  quillon::der::Parser parser(quillon::der::Input(der, length), quillon::der::Mode::kBer);
  quillon::der::Input content;
  if (!parser.Read(quillon::der::kInteger, &content) || parser.HasMore()) return false;
  return fromDerContent(content.data(), content.size());
}

bool BigInteger::fromHex(const char* text) {
  if (text == nullptr) return false;
  const char* digits = text[0] == '-' ? text + 1 : text;
  const size_t count = std::strlen(digits);
  if (count == 0 || count > static_cast<size_t>(INT_MAX / 4)) return false;
  for (size_t i = 0; i < count; ++i) {
    if (!IsHexDigit(digits[i])) return false;
  }
  BIGNUM* value = nullptr;
  // BN_hex2bn reads the optional "-" itself; the text is already checked.
  if (BN_hex2bn(&value, text) != static_cast<int>(std::strlen(text))) {
    BN_free(value);
    return false;
  }
  BN_free(bn_);
  bn_ = value;
  return true;
}

std::vector<unsigned char> BigInteger::toDerContent() const {
  std::vector<unsigned char> out = Magnitude(bn_);
  if (out.empty()) return {0x00};
  if (!BN_is_negative(bn_)) {
    // A set top bit would read as negative: prefix a zero octet.
    if (out[0] & 0x80) out.insert(out.begin(), 0x00);
    return out;
  }
  // With n octets of magnitude m >= 2^(8(n-1)), -m needs n octets, or n + 1
  // when its two's complement form loses the sign bit (m > 2^(8n-1)).
  NegateInPlace(&out);
  if (!(out[0] & 0x80)) out.insert(out.begin(), 0xFF);
  return out;
}

std::vector<unsigned char> BigInteger::encode() const {
  const std::vector<unsigned char> content = toDerContent();
  std::vector<unsigned char> out;
  quillon::der::AppendHeader(quillon::der::kInteger, content.size(), &out);
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

std::string BigInteger::toHex() const {
  std::string out;
  quillon::pki::AppendHex(*this, &out);
  return out;
}

namespace quillon::pki {

void AppendHex(const BigInteger& value, std::string* out) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  const BIGNUM* bn = value.bignum();
  const int length = bn == nullptr ? 0 : BN_num_bytes(bn);
  if (length <= 0) {
    out->append("00");
    return;
  }
  // Serials are at most 20 octets in practice: their magnitude is read into
  // the stack, a longer one into the heap.
  unsigned char local[64];
  std::vector<unsigned char> heap;
  unsigned char* magnitude = local;
  if (static_cast<size_t>(length) > sizeof(local)) {
    heap.resize(static_cast<size_t>(length));
    magnitude = heap.data();
  }
  BN_bn2bin(bn, magnitude);
  const bool negative = BN_is_negative(bn);
  const size_t start = out->size();
  out->resize(start + static_cast<size_t>(length) * 2 + (negative ? 1 : 0));
  char* p = out->data() + start;
  if (negative) *p++ = '-';
  for (int i = 0; i < length; ++i) {
    *p++ = kDigits[magnitude[i] >> 4];
    *p++ = kDigits[magnitude[i] & 0x0F];
  }
}

}  // namespace quillon::pki

int BigInteger::compare(const BigInteger& other) const {
  if (bn_ == nullptr || other.bn_ == nullptr) {
    // A missing BIGNUM is zero: the answer is the other side's sign.
    const auto sign = [](const BIGNUM* bn) {
      if (bn == nullptr || BN_is_zero(bn)) return 0;
      return BN_is_negative(bn) ? -1 : 1;
    };
    const int a = sign(bn_);
    const int b = sign(other.bn_);
    return a < b ? -1 : (a > b ? 1 : 0);
  }
  const int r = BN_cmp(bn_, other.bn_);
  return r < 0 ? -1 : (r > 0 ? 1 : 0);
}

bool BigInteger::isNegative() const { return bn_ != nullptr && BN_is_negative(bn_); }

bool BigInteger::isZero() const { return bn_ == nullptr || BN_is_zero(bn_); }
