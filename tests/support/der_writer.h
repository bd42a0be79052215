// A small DER writer for the tests' PKI factory. It is deliberately separate
// from the library's ASN.1 code so that the tests never judge the library with
// the library's own encoder.
//
// Usage: Begin(tag) ... End() for constructed values (the length is patched in
// at End(), always in minimal DER form); the leaf writers append whole TLVs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quillon::testing {

namespace der {
// Universal tags used by the factory.
inline constexpr uint8_t kBoolean = 0x01;
inline constexpr uint8_t kInteger = 0x02;
inline constexpr uint8_t kBitString = 0x03;
inline constexpr uint8_t kOctetString = 0x04;
inline constexpr uint8_t kNull = 0x05;
inline constexpr uint8_t kOid = 0x06;
inline constexpr uint8_t kEnumerated = 0x0A;
inline constexpr uint8_t kUtf8String = 0x0C;
inline constexpr uint8_t kPrintableString = 0x13;
inline constexpr uint8_t kT61String = 0x14;
inline constexpr uint8_t kIa5String = 0x16;
inline constexpr uint8_t kUtcTime = 0x17;
inline constexpr uint8_t kGeneralizedTime = 0x18;
inline constexpr uint8_t kUniversalString = 0x1C;
inline constexpr uint8_t kBmpString = 0x1E;
inline constexpr uint8_t kSequence = 0x30;
inline constexpr uint8_t kSet = 0x31;
// Context-specific tags: [n] IMPLICIT primitive and [n] constructed.
constexpr uint8_t Ctx(int n) { return static_cast<uint8_t>(0x80 | n); }
constexpr uint8_t CtxCons(int n) { return static_cast<uint8_t>(0xA0 | n); }
}  // namespace der

class DerWriter {
 public:
  // Starts a constructed value with the given identifier octet.
  void Begin(uint8_t tag);
  // Closes the innermost Begin(): writes its minimal length.
  void End();

  // One TLV with the given content octets.
  void Tlv(uint8_t tag, std::span<const uint8_t> content);
  void Tlv(uint8_t tag, std::string_view content);
  // Bytes already encoded (one or more whole TLVs, or deliberately anything).
  void Raw(std::span<const uint8_t> bytes);

  // INTEGER whose content octets are given as they are (two's complement,
  // big-endian; not checked, so non-minimal encodings can be written).
  void Integer(std::span<const uint8_t> content);
  void Integer(int64_t value);
  void Enumerated(int64_t value);
  void Boolean(bool value);
  void Null();
  // OBJECT IDENTIFIER from dotted text ("2.5.29.15"); throws on bad text.
  void Oid(std::string_view dotted);
  void OctetString(std::span<const uint8_t> content);
  void BitString(std::span<const uint8_t> bytes);  // no unused bits
  // A NamedBitList BIT STRING (key usage, reason flags) with the given bit
  // numbers set and trailing zero bits removed, as DER requires.
  void NamedBits(std::span<const int> bits);
  // RFC 5280 Time: UTCTime for years 1950-2049, GeneralizedTime otherwise
  // or when forced.
  void Time(time_t t, bool forceGeneralized = false);
  void UtcTime(time_t t);
  void GeneralizedTime(time_t t);

  size_t size() const { return out_.size(); }
  void Reserve(size_t n) { out_.reserve(n); }
  const std::vector<uint8_t>& bytes() const { return out_; }
  // The finished encoding; every Begin() must have been closed.
  std::vector<uint8_t> Take();

  // Helpers usable without a writer.
  static std::vector<uint8_t> EncodeLength(size_t length);
  static std::vector<uint8_t> EncodeOid(std::string_view dotted);
  // Minimal two's-complement content octets of an integer.
  static std::vector<uint8_t> IntegerContent(int64_t value);
  static std::vector<uint8_t> UnsignedContent(uint64_t value);

 private:
  void TimeDigits(time_t t, bool fourDigitYear, uint8_t tag);

  std::vector<uint8_t> out_;
  std::vector<size_t> open_;  // content start offsets of open values
};

}  // namespace quillon::testing
