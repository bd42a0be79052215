// ASN.1 core: a bounds-checked DER/BER reader over non-owning views, a DER
// writer, object identifiers and the BER-to-DER normaliser.
//
// Every object of the PKI layer is parsed with a strict DER Parser over bytes
// it owns. Inputs that arrive in BER (indefinite lengths, long-form lengths
// where short ones would do, constructed strings, unsorted SETs) are first
// rewritten to DER by NormaliseToDer(); the bytes as received are kept by the
// caller wherever a signature covers them.
//
// Readers return [[nodiscard]] bool and never throw. On failure a Parser is
// left in an unspecified but safe state: keep reading and it keeps failing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/cpu.h"

namespace quillon::der {

// A non-owning view of bytes. The viewed memory must outlive the view.
class Input {
 public:
  constexpr Input() = default;
  constexpr Input(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  explicit Input(std::span<const uint8_t> s) : data_(s.data()), size_(s.size()) {}
  explicit Input(const std::vector<uint8_t>& v) : data_(v.data()), size_(v.size()) {}
  explicit Input(std::string_view s)
      : data_(reinterpret_cast<const uint8_t*>(s.data())), size_(s.size()) {}

  const uint8_t* data() const { return data_; }
  size_t size() const { return size_; }
  bool empty() const { return size_ == 0; }
  const uint8_t* begin() const { return data_; }
  const uint8_t* end() const { return data_ + size_; }
  uint8_t operator[](size_t i) const { return data_[i]; }

  std::vector<uint8_t> ToVector() const { return {data_, data_ + size_}; }
  std::string_view AsStringView() const {
    return {reinterpret_cast<const char*>(data_), size_};
  }
  std::span<const uint8_t> AsSpan() const { return {data_, size_}; }

  friend bool operator==(const Input& a, const Input& b);
  friend bool operator<(const Input& a, const Input& b);  // lexicographic

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

// An identifier octet (class, constructed bit and tag number) packed into 32
// bits: the class and constructed bits of the first identifier octet in the
// top byte, the tag number below. Universal tags below 31 therefore compare
// equal to (first octet << 24) | number.
using Tag = uint32_t;

enum class TagClass : uint8_t { kUniversal = 0x00, kApplication = 0x40, kContextSpecific = 0x80, kPrivate = 0xC0 };

constexpr uint32_t kTagConstructedBit = 0x20u << 24;
constexpr Tag MakeTag(TagClass cls, bool constructed, uint32_t number) {
  return (static_cast<uint32_t>(cls) << 24) | (constructed ? kTagConstructedBit : 0) |
         (number & 0x1FFFFFFFu);
}
constexpr Tag ContextSpecific(uint32_t n) { return MakeTag(TagClass::kContextSpecific, false, n); }
constexpr Tag ContextSpecificConstructed(uint32_t n) {
  return MakeTag(TagClass::kContextSpecific, true, n);
}
constexpr Tag Application(uint32_t n) { return MakeTag(TagClass::kApplication, false, n); }
constexpr Tag ApplicationConstructed(uint32_t n) { return MakeTag(TagClass::kApplication, true, n); }
constexpr bool IsConstructed(Tag t) { return (t & kTagConstructedBit) != 0; }
constexpr uint32_t TagNumber(Tag t) { return t & 0x1FFFFFFFu; }
constexpr TagClass ClassOf(Tag t) { return static_cast<TagClass>((t >> 24) & 0xC0); }

constexpr Tag kBoolean = MakeTag(TagClass::kUniversal, false, 1);
constexpr Tag kInteger = MakeTag(TagClass::kUniversal, false, 2);
constexpr Tag kBitString = MakeTag(TagClass::kUniversal, false, 3);
constexpr Tag kOctetString = MakeTag(TagClass::kUniversal, false, 4);
constexpr Tag kNull = MakeTag(TagClass::kUniversal, false, 5);
constexpr Tag kOid = MakeTag(TagClass::kUniversal, false, 6);
constexpr Tag kEnumerated = MakeTag(TagClass::kUniversal, false, 10);
constexpr Tag kUtf8String = MakeTag(TagClass::kUniversal, false, 12);
constexpr Tag kNumericString = MakeTag(TagClass::kUniversal, false, 18);
constexpr Tag kPrintableString = MakeTag(TagClass::kUniversal, false, 19);
constexpr Tag kT61String = MakeTag(TagClass::kUniversal, false, 20);
constexpr Tag kIa5String = MakeTag(TagClass::kUniversal, false, 22);
constexpr Tag kUtcTime = MakeTag(TagClass::kUniversal, false, 23);
constexpr Tag kGeneralizedTime = MakeTag(TagClass::kUniversal, false, 24);
constexpr Tag kVisibleString = MakeTag(TagClass::kUniversal, false, 26);
constexpr Tag kUniversalString = MakeTag(TagClass::kUniversal, false, 28);
constexpr Tag kBmpString = MakeTag(TagClass::kUniversal, false, 30);
constexpr Tag kSequence = MakeTag(TagClass::kUniversal, true, 16);
constexpr Tag kSet = MakeTag(TagClass::kUniversal, true, 17);

// How strictly a Parser reads lengths.
enum class Mode : uint8_t {
  // Definite, minimal lengths of at most 4 octets; minimal tag numbers.
  kDer,
  // Also accepts non-minimal and long-form lengths (up to 8 octets) and, for
  // constructed elements, the indefinite length closed by end-of-contents.
  kBer,
};

// Limits a Parser enforces; reaching one fails the read.
struct Limits {
  uint32_t max_depth = 64;                 // nesting of constructed elements
  size_t max_element_size = size_t{1} << 31;  // content octets of one element
};

// Reads consecutive TLVs from an Input. Child parsers returned by
// ReadConstructed() view a sub-range of the same bytes.
class Parser {
 public:
  Parser() = default;
  explicit Parser(Input input, Mode mode = Mode::kDer, Limits limits = {})
      : input_(input), mode_(mode), limits_(limits) {}

  bool HasMore() const { return pos_ < input_.size() && !failed_; }
  Mode mode() const { return mode_; }
  // The bytes not yet read.
  Input Remaining() const { return Input(input_.data() + pos_, input_.size() - pos_); }

  // Tag of the next element without consuming it.
  [[nodiscard]] bool PeekTag(Tag* tag) const;

  // Reads the next element: its tag and content octets (for an indefinite
  // length, the content without the end-of-contents octets).
  [[nodiscard]] bool ReadTagAndValue(Tag* tag, Input* value);
  // As above, also giving the whole element (identifier, length, content).
  [[nodiscard]] bool ReadElement(Tag* tag, Input* value, Input* whole);
  // Reads the next element whole, as it stands in the input.
  [[nodiscard]] bool ReadRawTLV(Input* whole);
  // Reads the next element, which must carry |tag|.
  [[nodiscard]] bool Read(Tag tag, Input* value);
  // Reads the next element when it carries |tag|; *present tells whether it did.
  [[nodiscard]] bool ReadOptional(Tag tag, Input* value, bool* present);
  [[nodiscard]] bool SkipOptional(Tag tag, bool* present);
  [[nodiscard]] bool Skip(Tag tag);

  // Reads a constructed element with |tag| and hands back a parser over its
  // content, with this parser's mode and one more level of depth.
  [[nodiscard]] bool ReadConstructed(Tag tag, Parser* child);
  [[nodiscard]] bool ReadSequence(Parser* child) { return ReadConstructed(kSequence, child); }
  [[nodiscard]] bool ReadOptionalConstructed(Tag tag, Parser* child, bool* present);

  // Typed primitives.
  [[nodiscard]] bool ReadBool(bool* out);            // DER: 0x00 or 0xFF only
  [[nodiscard]] bool ReadInteger(Input* content);    // minimal two's complement content
  [[nodiscard]] bool ReadUint64(uint64_t* out);      // non-negative INTEGER fitting 64 bits
  [[nodiscard]] bool ReadEnumerated(uint64_t* out);
  [[nodiscard]] bool ReadOid(Input* content);
  // BIT STRING: the bit bytes and the count of unused bits in the last one.
  [[nodiscard]] bool ReadBitString(Input* bits, uint8_t* unused_bits);

 private:
  bool Fail() { failed_ = true; return false; }
  bool ParseHeader(size_t at, Tag* tag, size_t* header_len, size_t* content_len,
                   bool* indefinite) const;
  // Consumes the element whose header at pos_ was just read.
  bool FinishElement(size_t header_len, size_t len, bool indefinite, Input* value, Input* whole);
  bool FindEndOfContents(size_t content_start, uint32_t depth, size_t* content_len) const;

  Input input_;
  size_t pos_ = 0;
  Mode mode_ = Mode::kDer;
  Limits limits_;
  uint32_t depth_ = 0;
  bool failed_ = false;
};

// Reads consecutive DER elements without a Parser's generality, for the hot
// reads of certificates, names and extensions: elements are asked for by
// their one identifier octet, in DER with the default limits, accepting
// exactly what a DER-mode Parser accepts for them. A failed read leaves the
// position where it was.
class BareReader {
 public:
  BareReader() = default;
  explicit BareReader(Input in) : p_(in.data()), end_(in.size()) {}

  bool AtEnd() const { return at_ == end_; }
  // Whether the next element's identifier octet is |tag|.
  bool NextIs(uint8_t tag) const { return at_ < end_ && p_[at_] == tag; }

  // The next element, which must carry the identifier octet |tag|: its
  // content, and the whole element when |whole| is given.
  [[nodiscard]] inline bool Read(uint8_t tag, Input* content, Input* whole = nullptr);
  // The next element whatever its tag (DER header rules apply), whole.
  [[nodiscard]] inline bool ReadAny(Tag* tag, Input* content, Input* whole);
  // BIT STRING: the bit bytes and the count of unused bits, which are zero.
  [[nodiscard]] inline bool ReadBitString(Input* bits, uint8_t* unused_bits);

 private:
  const uint8_t* p_ = nullptr;
  size_t end_ = 0;
  size_t at_ = 0;
};

// Writes DER. Constructed elements are opened and closed; lengths are filled
// in when an element is closed.
class Writer {
 public:
  Writer() = default;
  explicit Writer(std::vector<uint8_t>* sink) : out_(sink) {}

  void AddTLV(Tag tag, Input content);
  void AddTLV(Tag tag, std::span<const uint8_t> content) { AddTLV(tag, Input(content)); }
  // Appends bytes that already form complete TLVs.
  void AddRaw(Input tlvs);
  void AddInteger(uint64_t value);
  void AddBool(bool value);
  void AddNull();
  // Appends an OID given as dotted text; false (nothing written) when malformed.
  [[nodiscard]] bool AddOid(std::string_view dotted);
  void AddBitString(Input bits, uint8_t unused_bits);

  void Open(Tag tag);
  void Close();

  const std::vector<uint8_t>& bytes() const { return *out_; }
  std::vector<uint8_t> Take() { return std::move(*out_); }

 private:
  std::vector<uint8_t> own_;
  std::vector<uint8_t>* out_ = &own_;
  std::vector<size_t> open_;  // content start offsets of open elements
};

// Appends the identifier and length octets of an element.
void AppendHeader(Tag tag, size_t content_length, std::vector<uint8_t>* out);

// Dotted text of OID content octets ("2.5.29.35"); false when malformed
// (empty, truncated arc, non-minimal arc, arc beyond 64 bits).
[[nodiscard]] bool OidToText(Input content, std::string* out);
// True exactly when OidToText() would succeed; checks without allocating.
[[nodiscard]] inline bool IsValidOid(Input content);
// Content octets of a dotted OID; false when malformed.
[[nodiscard]] bool OidFromText(std::string_view dotted, std::vector<uint8_t>* content);

// An OID held as its content octets, built once from dotted text; for
// comparisons against parsed OIDs without converting them to text.
class Oid {
 public:
  explicit Oid(std::string_view dotted);
  Input bytes() const { return Input(content_); }
  const std::string& text() const { return text_; }
  bool operator==(Input other) const { return Input(content_) == other; }

 private:
  std::vector<uint8_t> content_;
  std::string text_;
};

// Rewrites one BER element (and anything following it is an error) as DER:
// definite minimal lengths, constructed strings joined into primitive ones,
// SET elements sorted by their encodings. False on malformed input or when a
// limit is reached; |out| is then cleared.
[[nodiscard]] bool NormaliseToDer(Input ber, std::vector<uint8_t>* out, Limits limits = {});

// True when |input| is exactly one element in strict DER: minimal lengths and
// tags, primitive strings, sorted SETs, and nothing after it.
bool IsStrictDer(Input input, Limits limits = {});

// ---------------------------------------------------------------------------
// The hot reads of Parser, inline: a certificate is some hundred elements,
// and the calls cost more than the reading.

namespace detail {

// The long form of length octets (first octet |l0| above 0x80; 0x80 itself,
// the indefinite form, is refused) at p[*i..n):
// at most 4 octets in DER, 8 in BER, and in DER minimal (no leading zero
// octet, and not where the short form would do). The one reader of long
// lengths, for DecodeHeader() and ReadDerElement().
QUILLON_ALWAYS_INLINE bool DecodeLongLength(const uint8_t* p, size_t n, size_t* i,
                                                    uint8_t l0, Mode mode, size_t* content_len) {
  const size_t count = l0 & 0x7F;
  const size_t max_count = mode == Mode::kDer ? 4 : 8;
  if (count == 0 || count > max_count || n - *i < count) return false;
  uint64_t len = 0;
  for (size_t k = 0; k < count; ++k) len = (len << 8) | p[(*i)++];
  if (mode == Mode::kDer && (p[*i - count] == 0 || len < 0x80)) return false;
  if (len > SIZE_MAX) return false;
  *content_len = static_cast<size_t>(len);
  return true;
}

// Identifier octets (X.690 8.1.2) then length octets (8.1.3) of the element
// at |at| in p[0..n). The one header reader of Parser and of IsStrictDer().
QUILLON_ALWAYS_INLINE bool DecodeHeader(const uint8_t* p, size_t n, size_t at, Mode mode,
                                                Tag* tag, size_t* header_len, size_t* content_len,
                                                bool* indefinite) {
  size_t i = at;
  if (i >= n) return false;
  const uint8_t first = p[i++];
  uint32_t number = first & 0x1F;
  if (number == 0x1F) {
    // High tag number form: base-128, no leading 0x80, at most 28 bits here.
    number = 0;
    int count = 0;
    for (;;) {
      if (i >= n) return false;
      const uint8_t b = p[i++];
      if (count == 0 && b == 0x80) return false;
      if (++count > 4) return false;
      number = (number << 7) | (b & 0x7F);
      if (!(b & 0x80)) break;
    }
    // DER and BER alike: the high form is only for numbers of 31 and above.
    if (number < 31) return false;
  }
  *tag = (static_cast<uint32_t>(first & 0xE0) << 24) | number;

  if (i >= n) return false;
  const uint8_t l0 = p[i++];
  *indefinite = false;
  if (l0 < 0x80) {
    *content_len = l0;
  } else if (l0 == 0x80) {
    // Indefinite: BER only, constructed only.
    if (mode != Mode::kBer || !(first & 0x20)) return false;
    *indefinite = true;
    *content_len = 0;
  } else if (!DecodeLongLength(p, n, &i, l0, mode, content_len)) {
    return false;
  }
  *header_len = i - at;
  return true;
}

// The element at p[*at..end) in DER when its identifier is the single octet
// |tag_octet| (a universal or context tag below 31): its content starts at
// the new *at and has *len octets, all before |end|. What Parser::Read in
// DER mode with default limits accepts, without a Parser: the walks over
// names and extensions run this some dozens of times per certificate.
QUILLON_ALWAYS_INLINE bool ReadDerElement(const uint8_t* p, size_t end, size_t* at,
                                                  uint8_t tag_octet, size_t* len) {
  size_t i = *at;
  if (end - i < 2 || p[i] != tag_octet) return false;
  const uint8_t l0 = p[i + 1];
  i += 2;
  size_t n = l0;
  if (l0 >= 0x80) {
    if (!DecodeLongLength(p, end, &i, l0, Mode::kDer, &n) ||
        n > Limits{}.max_element_size) {
      return false;
    }
  }
  if (n > end - i) return false;
  *at = i;
  *len = n;
  return true;
}

// Arcs of an OID: checked in full, for OIDs of over eight octets.
bool IsValidLongOid(Input content);

}  // namespace detail

inline bool IsValidOid(Input v) {
  // Arcs of at most eight octets (56 bits) cannot overflow, so for OIDs of
  // at most eight octets (nearly all) validity is: no arc starts with 0x80
  // and the last octet ends an arc; checked on all octets at once in one
  // word. An arc starts at the first octet and after every octet without
  // the high bit.
  const size_t n = v.size();
  if (n == 0 || n > 8) return detail::IsValidLongOid(v);
  const uint8_t* d = v.data();
  uint64_t x = 0;
  switch (n) {
    case 8: x |= static_cast<uint64_t>(d[7]) << 56; [[fallthrough]];
    case 7: x |= static_cast<uint64_t>(d[6]) << 48; [[fallthrough]];
    case 6: x |= static_cast<uint64_t>(d[5]) << 40; [[fallthrough]];
    case 5: x |= static_cast<uint64_t>(d[4]) << 32; [[fallthrough]];
    case 4: x |= static_cast<uint64_t>(d[3]) << 24; [[fallthrough]];
    case 3: x |= static_cast<uint64_t>(d[2]) << 16; [[fallthrough]];
    case 2: x |= static_cast<uint64_t>(d[1]) << 8; [[fallthrough]];
    default: x |= d[0];
  }
  if (d[n - 1] & 0x80) return false;
  constexpr uint64_t kHigh = 0x8080808080808080ull, kLow = 0x7F7F7F7F7F7F7F7Full;
  const uint64_t y = x ^ kHigh;  // zero octets where x has 0x80
  const uint64_t not_80 = (((y & kLow) + kLow) | y) & kHigh;
  const uint64_t starts = ~(x << 8) & kHigh;
  return (~not_80 & kHigh & starts) == 0;
}

// BIT STRING content: an unused-bits octet of at most 7 (0 when there are
// no bit octets), and in DER those unused bits are zero.
inline bool SplitBitString(Input v, Mode mode, Input* bits, uint8_t* unused_bits) {
  if (v.empty()) return false;
  const uint8_t unused = v[0];
  if (unused > 7 || (unused != 0 && v.size() == 1)) return false;
  if (mode == Mode::kDer && unused != 0) {
    const uint8_t mask = static_cast<uint8_t>((1u << unused) - 1);
    if (v[v.size() - 1] & mask) return false;
  }
  *bits = Input(v.data() + 1, v.size() - 1);
  *unused_bits = unused;
  return true;
}

inline bool BareReader::Read(uint8_t tag, Input* content, Input* whole) {
  size_t at = at_, len = 0;
  if (!detail::ReadDerElement(p_, end_, &at, tag, &len)) return false;
  *content = Input(p_ + at, len);
  if (whole) *whole = Input(p_ + at_, at + len - at_);
  at_ = at + len;
  return true;
}

inline bool BareReader::ReadAny(Tag* tag, Input* content, Input* whole) {
  size_t header_len = 0, len = 0;
  bool indefinite = false;
  if (!detail::DecodeHeader(p_, end_, at_, Mode::kDer, tag, &header_len, &len, &indefinite) ||
      len > end_ - at_ - header_len || len > Limits{}.max_element_size) {
    return false;
  }
  *content = Input(p_ + at_ + header_len, len);
  *whole = Input(p_ + at_, header_len + len);
  at_ += header_len + len;
  return true;
}

inline bool BareReader::ReadBitString(Input* bits, uint8_t* unused_bits) {
  const size_t at = at_;
  Input v;
  if (Read(0x03, &v) && SplitBitString(v, Mode::kDer, bits, unused_bits)) return true;
  at_ = at;
  return false;
}

inline bool Parser::ParseHeader(size_t at, Tag* tag, size_t* header_len, size_t* content_len,
                                bool* indefinite) const {
  return detail::DecodeHeader(input_.data(), input_.size(), at, mode_, tag, header_len,
                              content_len, indefinite);
}

inline bool Parser::FinishElement(size_t header_len, size_t len, bool indefinite, Input* value,
                                  Input* whole) {
  size_t total;
  if (indefinite) {
    if (depth_ + 1 > limits_.max_depth) return Fail();
    if (!FindEndOfContents(pos_ + header_len, depth_ + 1, &len)) return Fail();
    total = header_len + len + 2;
  } else {
    if (len > input_.size() - pos_ - header_len) return Fail();
    total = header_len + len;
  }
  if (len > limits_.max_element_size) return Fail();
  *value = Input(input_.data() + pos_ + header_len, len);
  if (whole) *whole = Input(input_.data() + pos_, total);
  pos_ += total;
  return true;
}

inline bool Parser::PeekTag(Tag* tag) const {
  if (failed_ || pos_ >= input_.size()) return false;
  size_t header_len, len;
  bool indefinite;
  return ParseHeader(pos_, tag, &header_len, &len, &indefinite);
}

inline bool Parser::ReadElement(Tag* tag, Input* value, Input* whole) {
  if (failed_ || pos_ >= input_.size()) return Fail();
  size_t header_len, len;
  bool indefinite;
  if (!ParseHeader(pos_, tag, &header_len, &len, &indefinite)) return Fail();
  return FinishElement(header_len, len, indefinite, value, whole);
}

inline bool Parser::ReadTagAndValue(Tag* tag, Input* value) {
  return ReadElement(tag, value, nullptr);
}

inline bool Parser::ReadRawTLV(Input* whole) {
  Tag tag;
  Input value;
  return ReadElement(&tag, &value, whole);
}

inline bool Parser::Read(Tag tag, Input* value) {
  if (failed_ || pos_ >= input_.size()) return Fail();
  Tag actual;
  size_t header_len, len;
  bool indefinite;
  if (!ParseHeader(pos_, &actual, &header_len, &len, &indefinite) || actual != tag) return Fail();
  return FinishElement(header_len, len, indefinite, value, nullptr);
}

inline bool Parser::ReadOptional(Tag tag, Input* value, bool* present) {
  *present = false;
  if (failed_) return false;
  Tag actual;
  size_t header_len, len;
  bool indefinite;
  if (pos_ >= input_.size() || !ParseHeader(pos_, &actual, &header_len, &len, &indefinite) ||
      actual != tag) {
    // A malformed next element is left for the following read to reject.
    return true;
  }
  *present = true;
  return FinishElement(header_len, len, indefinite, value, nullptr);
}

inline bool Parser::SkipOptional(Tag tag, bool* present) {
  Input ignored;
  return ReadOptional(tag, &ignored, present);
}

inline bool Parser::Skip(Tag tag) {
  Input ignored;
  return Read(tag, &ignored);
}

inline bool Parser::ReadConstructed(Tag tag, Parser* child) {
  if (!IsConstructed(tag) || depth_ + 1 > limits_.max_depth) return Fail();
  Input value;
  if (!Read(tag, &value)) return false;
  *child = Parser(value, mode_, limits_);
  child->depth_ = depth_ + 1;
  return true;
}

inline bool Parser::ReadOptionalConstructed(Tag tag, Parser* child, bool* present) {
  Tag actual;
  *present = false;
  if (failed_) return false;
  if (pos_ >= input_.size() || !PeekTag(&actual) || actual != tag) return true;
  *present = true;
  return ReadConstructed(tag, child);
}

}  // namespace quillon::der
