// Distinguished names: DER/BER decoding, DER encoding, the text printer that
// makes the CA table keys and CRL issuer texts, the text parser and the
// value-type normalisation.
#include "quillon32/name.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "pki/der.h"
#include "pki/name_der.h"
#include "pki/name_table.h"
#include "platform/cpu.h"

namespace quillon {
namespace {

using der::Input;
using der::Parser;
using der::Writer;
namespace table = name_table;

// Universal tag numbers of the value types the name code converts.
constexpr int kOctetStringTag = 4;
constexpr int kUtf8StringTag = 12;
constexpr int kPrintableStringTag = 19;
constexpr int kT61StringTag = 20;
constexpr int kIa5StringTag = 22;
constexpr int kUniversalStringTag = 28;
constexpr int kBmpStringTag = 30;

// The parser and the encoder read tag numbers of at most four base-128 octets.
constexpr int kMaxValueTag = 0x0FFFFFFF;

// Printed attributes per name; further ones are left out of the text.
constexpr int kMaxPrintedAttributes = 30;

constexpr uint32_t kReplacementCharacter = 0xFFFD;

// ---------------------------------------------------------------------------
// Character sets

void AppendUtf8(uint32_t cp, std::string* out) {
  if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacementCharacter;
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// T61String values are taken as Latin-1, as certificates in practice use them.
std::string Latin1ToUtf8(Input in) {
  std::string out;
  out.reserve(in.size());
  for (unsigned char c : in) AppendUtf8(c, &out);
  return out;
}

// BMPString: UCS-2 big-endian. Surrogate pairs are combined as UTF-16 would
// have them; a lone surrogate or an odd final octet becomes U+FFFD.
std::string Utf16BeToUtf8(Input in) {
  std::string out;
  out.reserve(in.size());
  size_t i = 0;
  for (; i + 1 < in.size(); i += 2) {
    uint32_t unit = (static_cast<uint32_t>(in[i]) << 8) | in[i + 1];
    if (unit >= 0xD800 && unit <= 0xDBFF && i + 3 < in.size()) {
      const uint32_t low = (static_cast<uint32_t>(in[i + 2]) << 8) | in[i + 3];
      if (low >= 0xDC00 && low <= 0xDFFF) {
        unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
        i += 2;
      }
    }
    AppendUtf8(unit, &out);
  }
  if (i < in.size()) AppendUtf8(kReplacementCharacter, &out);
  return out;
}

// UniversalString: UCS-4 big-endian; an incomplete final character or a
// value outside Unicode becomes U+FFFD.
std::string Ucs4BeToUtf8(Input in) {
  std::string out;
  out.reserve(in.size());
  size_t i = 0;
  for (; i + 3 < in.size(); i += 4) {
    const uint32_t cp = (static_cast<uint32_t>(in[i]) << 24) |
                        (static_cast<uint32_t>(in[i + 1]) << 16) |
                        (static_cast<uint32_t>(in[i + 2]) << 8) | in[i + 3];
    AppendUtf8(cp, &out);
  }
  if (i < in.size()) AppendUtf8(kReplacementCharacter, &out);
  return out;
}

// Whether a value of this type is converted to be UTF-8 text; the 7-bit
// string types, UTF8String and any other type are taken octet for octet.
bool IsConverted(int value_tag) {
  return value_tag == kT61StringTag || value_tag == kBmpStringTag ||
         value_tag == kUniversalStringTag;
}

// The value as UTF-8 text.
std::string ValueText(int value_tag, Input value) {
  switch (value_tag) {
    case kT61StringTag:
      return Latin1ToUtf8(value);
    case kBmpStringTag:
      return Utf16BeToUtf8(value);
    case kUniversalStringTag:
      return Ucs4BeToUtf8(value);
    default:
      return std::string(value.AsStringView());
  }
}

std::string ValueText(const Name::Attribute& a) { return ValueText(a.valueTag, Input(a.value)); }

void SetText(Name::Attribute* a, const std::string& text) { a->value.assign(text.begin(), text.end()); }

// ---------------------------------------------------------------------------
// Types and labels

char AsciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool EqualsIgnoringAsciiCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (AsciiUpper(a[i]) != AsciiUpper(b[i])) return false;
  }
  return true;
}

bool IsDottedOid(std::string_view text) {
  if (text.empty() || !std::all_of(text.begin(), text.end(),
                                   [](char c) { return (c >= '0' && c <= '9') || c == '.'; })) {
    return false;
  }
  std::vector<uint8_t> content;
  return der::OidFromText(text, &content);
}

// The dotted OID for a type written in a name text: a label of the table
// (any letter case), a dotted OID, or "OID." followed by a dotted OID.
bool ResolveType(std::string_view text, std::string* oid) {
  for (const auto& row : table::kRows) {
    if (EqualsIgnoringAsciiCase(text, row.label)) {
      *oid = row.type;
      return true;
    }
  }
  constexpr std::string_view kOidPrefix = "OID.";
  if (text.size() > kOidPrefix.size() &&
      EqualsIgnoringAsciiCase(text.substr(0, kOidPrefix.size()), kOidPrefix)) {
    text.remove_prefix(kOidPrefix.size());
  }
  if (!IsDottedOid(text)) return false;
  *oid = text;
  return true;
}

// ---------------------------------------------------------------------------
// DER

// Name ::= SEQUENCE OF RelativeDistinguishedName
// RelativeDistinguishedName ::= SET SIZE (1..MAX) OF AttributeTypeAndValue
// AttributeTypeAndValue ::= SEQUENCE { type OBJECT IDENTIFIER, value ANY }
//
// Walks a Name in strict DER and hands each attribute to
// |fn|(starts_rdn, type_oid_content, value_tag_number, value_content), which
// returns false to stop. Only primitive values of the universal class (the
// string types in practice) are accepted, as a value is kept as its tag
// number and content octets. The one reader of names: decoding, checking and
// printing straight from DER all go through it.
template <class F>
bool WalkDerName(Input der_bytes, F&& fn) {
  // Read with the bare element reader rather than Parsers: every certificate
  // a caller asks about has two names walked, a dozen elements each.
  const uint8_t* const p = der_bytes.data();
  const size_t n = der_bytes.size();
  size_t at = 0, len = 0;
  if (!der::detail::ReadDerElement(p, n, &at, 0x30, &len) || len != n - at) return false;
  while (at < n) {
    if (!der::detail::ReadDerElement(p, n, &at, 0x31, &len) || len == 0) return false;
    const size_t set_end = at + len;
    bool starts_rdn = true;
    Input previous;
    while (at < set_end) {
      const size_t atv_start = at;
      if (!der::detail::ReadDerElement(p, set_end, &at, 0x30, &len)) return false;
      const size_t atv_end = at + len;
      // DER sorts the members of a SET by their encodings; names read here
      // are DER, and callers that read them from unchecked bytes rely on
      // the walk to say so.
      const Input atv_whole(p + atv_start, atv_end - atv_start);
      if (!starts_rdn && atv_whole < previous) return false;
      previous = atv_whole;
      if (!der::detail::ReadDerElement(p, atv_end, &at, 0x06, &len)) return false;
      const Input oid(p + at, len);
      if (!der::IsValidOid(oid)) return false;
      at += len;
      der::Tag tag;
      size_t header_len = 0;
      bool indefinite = false;
      if (!der::detail::DecodeHeader(p, atv_end, at, der::Mode::kDer, &tag, &header_len, &len,
                                     &indefinite) ||
          len != atv_end - at - header_len) {
        return false;
      }
      if (der::ClassOf(tag) != der::TagClass::kUniversal || der::IsConstructed(tag) ||
          der::TagNumber(tag) == 0 || der::TagNumber(tag) > kMaxValueTag) {
        return false;
      }
      const Input value(p + at + header_len, len);
      at = atv_end;
      if (!fn(starts_rdn, oid, static_cast<int>(der::TagNumber(tag)), value)) return false;
      starts_rdn = false;
    }
  }
  return true;
}

// The strict DER form of a Name element given in DER or BER: the input
// itself, or its rewrite into |*storage|.
bool AsDer(Input input, std::vector<uint8_t>* storage, Input* der_form) {
  if (der::IsStrictDer(input)) {
    *der_form = input;
    return true;
  }
  if (!der::NormaliseToDer(input, storage)) return false;
  *der_form = Input(*storage);
  return true;
}

bool DecodeName(Input der_bytes, std::vector<Name::RDN>* out) {
  return WalkDerName(der_bytes, [out](bool starts_rdn, Input oid, int tag, Input value) {
    Name::Attribute a;
    if (!der::OidToText(oid, &a.type)) return false;
    a.valueTag = tag;
    a.value = value.ToVector();
    if (starts_rdn) out->emplace_back();
    out->back().push_back(std::move(a));
    return true;
  });
}

bool EncodeAttribute(const Name::Attribute& a, std::vector<uint8_t>* out) {
  std::vector<uint8_t> oid;
  if (a.valueTag <= 0 || a.valueTag > kMaxValueTag || !der::OidFromText(a.type, &oid)) {
    return false;
  }
  Writer w(out);
  w.Open(der::kSequence);
  w.AddTLV(der::kOid, Input(oid));
  w.AddTLV(der::MakeTag(der::TagClass::kUniversal, false, static_cast<uint32_t>(a.valueTag)),
           Input(a.value));
  w.Close();
  return true;
}

// ---------------------------------------------------------------------------
// Printing

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\n'; }

// A value is written bare unless the parser would read it back differently:
// a leading blank (skipped), a leading quote (taken as a quoted value) or a
// "," or "+" not preceded by a backslash (taken as a separator).
bool NeedsQuotes(std::string_view text) {
  if (text.empty()) return false;
  if (IsBlank(text[0]) || text[0] == '"') return true;
  const char* const begin = text.data();
  const char* const end = begin + text.size();
  for (const char separator : {',', '+'}) {
    for (const char* p = begin;
         (p = static_cast<const char*>(std::memchr(p, separator, static_cast<size_t>(end - p))));
         ++p) {
      if (p == begin || p[-1] != '\\') return true;
    }
  }
  return false;
}

void AppendQuotedIfNeeded(std::string_view text, std::string* out) {
  if (!NeedsQuotes(text)) {
    out->append(text);
    return;
  }
  out->push_back('"');
  for (char c : text) {
    if (c == '"') out->push_back('\\');
    out->push_back(c);
  }
  out->push_back('"');
}

// True when |text| holds a NUL, "," or "+"; eight characters at a time.
inline bool HasNulCommaOrPlus(std::string_view text) {
  constexpr uint64_t kOnes = 0x0101010101010101ull, kHigh = 0x8080808080808080ull;
  const auto any = [](uint64_t w) {
    const auto has_zero_octet = [](uint64_t v) { return (v - kOnes) & ~v & kHigh; };
    return (has_zero_octet(w) | has_zero_octet(w ^ (kOnes * ',')) |
            has_zero_octet(w ^ (kOnes * '+'))) != 0;
  };
  const char* const p = text.data();
  const size_t n = text.size();
  if (n < 8) {
    for (size_t i = 0; i < n; ++i) {
      if (p[i] == '\0' || p[i] == ',' || p[i] == '+') return true;
    }
    return false;
  }
  uint64_t w;
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    std::memcpy(&w, p + i, 8);
    if (any(w)) return true;
  }
  if (i == n) return false;
  std::memcpy(&w, p + n - 8, 8);  // the last eight, overlapping the words read
  return any(w);
}

// True when a value of UTF-8 text |text| is printed as it is: no NUL,
// separator, leading blank or quote, or final backslash to take care of.
inline bool IsPlainText(std::string_view text) {
  return text.empty() || (!IsBlank(text[0]) && text[0] != '"' && text.back() != '\\' &&
                          !HasNulCommaOrPlus(text));
}

// Appends the text that stands for a value of UTF-8 text |text| in a printed
// name: each NUL character written as "\00" (a name text never holds a NUL)
// and a blank added after a final backslash (which would otherwise escape
// the separator or closing quote that follows it), then quoted if needed.
void AppendDisplayText(std::string_view text, std::string* out) {
  // Most values hold none of the characters that need care: one pass finds
  // that, and they are copied as they are.
  if (IsPlainText(text)) {
    out->append(text);
    return;
  }
  if (text.find('\0') == std::string_view::npos && text.back() != '\\') {
    AppendQuotedIfNeeded(text, out);
    return;
  }
  std::string display;
  display.reserve(text.size() + 1);
  for (char c : text) {
    if (c == '\0') {
      display += "\\00";
    } else {
      display.push_back(c);
    }
  }
  if (!display.empty() && display.back() == '\\') display.push_back(' ');
  AppendQuotedIfNeeded(display, out);
}

void AppendValue(int value_tag, Input value, std::string* out) {
  if (IsConverted(value_tag)) {
    AppendDisplayText(ValueText(value_tag, value), out);
  } else {
    AppendDisplayText(value.AsStringView(), out);
  }
}

// One attribute as the printer sees it: the position of its type among the
// printed types, and its value's universal tag number and content octets.
struct AttributeView {
  size_t order;
  int value_tag;
  Input value;
};

// The attributes of a name in name order. Names rarely hold more than a
// handful, which stay on the stack.
class AttributeViews {
 public:
  void push(const AttributeView& v) {
    if (size_ < local_.size()) {
      local_[size_++] = v;
      return;
    }
    if (heap_.empty()) heap_.assign(local_.begin(), local_.end());
    heap_.push_back(v);
    ++size_;
  }
  size_t size() const { return size_; }
  // Puts the attributes in printing order: by type position, name order
  // within one type.
  void sort() {
    const auto by_order = [](const AttributeView& a, const AttributeView& b) {
      return a.order < b.order;
    };
    if (!heap_.empty()) {
      std::stable_sort(heap_.begin(), heap_.end(), by_order);
      return;
    }
    for (size_t i = 1; i < size_; ++i) {
      const AttributeView v = local_[i];
      size_t j = i;
      for (; j > 0 && by_order(v, local_[j - 1]); --j) local_[j] = local_[j - 1];
      local_[j] = v;
    }
  }
  const AttributeView& operator[](size_t i) const {
    return heap_.empty() ? local_[i] : heap_[i];
  }

 private:
  std::array<AttributeView, 16> local_;  // the first size_ are set
  std::vector<AttributeView> heap_;
  size_t size_ = 0;
};

// Position of a type given as dotted text among the printed types, or
// kNotPrinted.
constexpr size_t kNotPrinted = ~size_t{0};

// Position among the printed types of the type 2.5.4.|arc| (arc below 128),
// or kNotPrinted.
size_t PrintedOrderOfX520Arc(uint8_t arc) {
  static const std::array<uint8_t, 128> by_x520_arc = [] {
    std::array<uint8_t, 128> out;
    out.fill(0xFF);
    for (size_t i = 0; i < table::kPrintedTypes.size(); ++i) {
      const std::string_view type = table::kPrintedTypes[i].type;
      if (type.size() > 6 && type.substr(0, 6) == "2.5.4.") {
        const int n = std::atoi(std::string(type.substr(6)).c_str());
        if (n > 0 && n < 128 && out[static_cast<size_t>(n)] == 0xFF) {
          out[static_cast<size_t>(n)] = static_cast<uint8_t>(i);
        }
      }
    }
    return out;
  }();
  const uint8_t at = by_x520_arc[arc & 0x7F];
  return at == 0xFF ? kNotPrinted : at;
}

size_t PrintedOrder(std::string_view dotted) {
  // Most types are arcs of 2.5.4: found by their last arc.
  if (dotted.size() > 6 && dotted.size() <= 9 && dotted.substr(0, 6) == "2.5.4." &&
      dotted[6] != '0') {
    size_t arc = 0;
    bool digits = true;
    for (const char c : dotted.substr(6)) {
      digits = digits && c >= '0' && c <= '9';
      arc = arc * 10 + static_cast<size_t>(c - '0');
    }
    if (digits && arc < 128) return PrintedOrderOfX520Arc(static_cast<uint8_t>(arc));
  }
  const auto& types = table::kPrintedTypes;
  for (size_t i = 0; i < types.size(); ++i) {
    if (dotted == types[i].type) return i;
  }
  return kNotPrinted;
}

// The same for a type given as OID content octets: the printed types are
// encoded once, so that names read from DER need no dotted text.
size_t PrintedOrder(Input oid) {
  // Most attribute types are arcs of 2.5.4 (content 55 04 nn): those are
  // found by their last arc.
  if (oid.size() == 3 && oid[0] == 0x55 && oid[1] == 0x04 && oid[2] < 0x80) {
    return PrintedOrderOfX520Arc(oid[2]);
  }
  static const std::array<std::vector<uint8_t>, table::kPrintedTypes.size()> encoded = [] {
    std::array<std::vector<uint8_t>, table::kPrintedTypes.size()> out;
    for (size_t i = 0; i < out.size(); ++i) {
      if (!der::OidFromText(table::kPrintedTypes[i].type, &out[i])) std::abort();
    }
    return out;
  }();
  for (size_t i = 0; i < encoded.size(); ++i) {
    if (oid == Input(encoded[i])) return i;
  }
  return kNotPrinted;
}

// The one name printer. For each printed type in table order, every
// attribute of that type in name order is written "LABEL=value", the pairs
// joined by ", ", the first kMaxPrintedAttributes only.
void PrintAttributes(AttributeViews* views, std::string* out) {
  out->clear();
  views->sort();
  const size_t count = std::min(views->size(), static_cast<size_t>(kMaxPrintedAttributes));
  // Names of plain values (nearly all) are laid out in one go.
  size_t bytes = count > 0 ? 2 * (count - 1) : 0;
  bool plain = true;
  for (size_t i = 0; i < count && plain; ++i) {
    const AttributeView& v = (*views)[i];
    plain = !IsConverted(v.value_tag) && IsPlainText(v.value.AsStringView());
    bytes += table::kPrintedTypes[v.order].label.size() + 1 + v.value.size();
  }
  if (plain) {
    out->resize(bytes);
    char* at = out->data();
    for (size_t i = 0; i < count; ++i) {
      const AttributeView& v = (*views)[i];
      if (i > 0) {
        std::memcpy(at, ", ", 2);
        at += 2;
      }
      const std::string_view label = table::kPrintedTypes[v.order].label;
      std::memcpy(at, label.data(), label.size());
      at += label.size();
      *at++ = '=';
      if (!v.value.empty()) std::memcpy(at, v.value.data(), v.value.size());
      at += v.value.size();
    }
    return;
  }
  out->reserve(bytes + 16 * count);
  for (size_t i = 0; i < count; ++i) {
    const AttributeView& v = (*views)[i];
    if (i > 0) out->append(", ");
    out->append(table::kPrintedTypes[v.order].label);
    out->push_back('=');
    AppendValue(v.value_tag, v.value, out);
  }
}

// ---------------------------------------------------------------------------
// Parsing

const char* SkipBlanks(const char* p) {
  while (IsBlank(*p)) ++p;
  return p;
}

// Reads "type=value" at |*p| and leaves |*p| at the separator or the end.
bool ParseAttribute(const char** p, Name::Attribute* out) {
  const char* s = SkipBlanks(*p);
  const char* type_end = s;
  while (*type_end != '\0' && *type_end != '=') ++type_end;
  if (*type_end != '=' || type_end == s) return false;
  std::string type(s, type_end);
  std::transform(type.begin(), type.end(), type.begin(), AsciiUpper);
  if (!ResolveType(type, &out->type)) return false;

  s = SkipBlanks(type_end + 1);
  std::string value;
  if (*s == '"') {
    // Quoted: ends at a quote not preceded by a backslash; the backslash of
    // such an escaped quote is dropped, every other character kept.
    for (++s;; ++s) {
      if (*s == '\0') return false;
      if (*s == '\\' && s[1] == '"') {
        value.push_back('"');
        ++s;
      } else if (*s == '"') {
        break;
      } else {
        value.push_back(*s);
      }
    }
    s = SkipBlanks(s + 1);
    if (*s != '\0' && *s != ',' && *s != '+') return false;
  } else {
    // Bare: ends at the first "," or "+" not preceded by a backslash; the
    // backslash stays in the value. The character before |s| is "=" or a
    // blank, so looking one back is always inside the text.
    const char* start = s;
    while (*s != '\0' && !((*s == ',' || *s == '+') && s[-1] != '\\')) ++s;
    value.assign(start, s);
  }
  out->valueTag = kUtf8StringTag;
  SetText(out, value);
  *p = s;
  return true;
}

bool ParseName(const char* text, std::vector<Name::RDN>* out) {
  const char* p = SkipBlanks(text);
  if (*p == '\0') return true;  // the empty name
  bool same_rdn = false;
  for (;;) {
    Name::Attribute a;
    if (!ParseAttribute(&p, &a)) return false;
    if (same_rdn) {
      out->back().push_back(std::move(a));
    } else {
      out->push_back({std::move(a)});
    }
    if (*p == '\0') return true;
    same_rdn = *p == '+';
    ++p;
  }
}

// ---------------------------------------------------------------------------
// Normalisation

// UTF8String octets are already 8-bit text (UTF-8, the library's text
// encoding); BMPString and UniversalString values are rewritten in UTF-8.
// Any other type keeps its octets.
void ToEightBit(Name::Attribute* a) {
  if (a->valueTag == kBmpStringTag || a->valueTag == kUniversalStringTag) {
    SetText(a, ValueText(*a));
  }
}

void NormaliseAttribute(Name::Attribute* a) {
  const std::string_view type = a->type;
  if (type == table::kCountry || type == table::kSerialNumber || type == table::kDnQualifier) {
    ToEightBit(a);
    a->valueTag = kPrintableStringTag;
    return;
  }
  if (type == table::kDomainComponent || type == table::kEmailAddress) {
    ToEightBit(a);
    a->valueTag = kIa5StringTag;
    return;
  }
  switch (a->valueTag) {
    case kOctetStringTag:
    case kPrintableStringTag:
    case kIa5StringTag:
      a->valueTag = kUtf8StringTag;
      break;
    case kT61StringTag:
    case kUniversalStringTag:
    case kBmpStringTag:
      SetText(a, ValueText(*a));
      a->valueTag = kUtf8StringTag;
      break;
    default:
      break;
  }
}

}  // namespace
}  // namespace quillon

bool Name::decode(const unsigned char* der, size_t length) {
  if (der == nullptr) return false;
  try {
    std::vector<uint8_t> normalised;
    quillon::der::Input der_form;
    if (!quillon::AsDer(quillon::der::Input(der, length), &normalised, &der_form)) return false;
    std::vector<RDN> rdns;
    if (!quillon::DecodeName(der_form, &rdns)) return false;
    rdns_ = std::move(rdns);
    return true;
  } catch (...) {
    return false;
  }
}

std::vector<unsigned char> Name::encode() const {
  try {
    std::vector<uint8_t> out;
    quillon::der::Writer w(&out);
    w.Open(quillon::der::kSequence);
    for (const RDN& rdn : rdns_) {
      // DER orders the members of a SET OF by their encodings.
      std::vector<std::vector<uint8_t>> members;
      for (const Attribute& a : rdn) {
        std::vector<uint8_t> atv;
        if (quillon::EncodeAttribute(a, &atv)) members.push_back(std::move(atv));
      }
      if (members.empty()) continue;
      std::sort(members.begin(), members.end(),
                [](const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
                  return quillon::der::Input(a) < quillon::der::Input(b);
                });
      w.Open(quillon::der::kSet);
      for (const auto& m : members) w.AddRaw(quillon::der::Input(m));
      w.Close();
    }
    w.Close();
    return out;
  } catch (...) {
    return {};
  }
}

bool Name::parse(const char* text) {
  if (text == nullptr) return false;
  try {
    std::vector<RDN> rdns;
    if (!quillon::ParseName(text, &rdns)) return false;
    for (RDN& rdn : rdns) {
      for (Attribute& a : rdn) quillon::NormaliseAttribute(&a);
    }
    rdns_ = std::move(rdns);
    return true;
  } catch (...) {
    return false;
  }
}

std::string Name::toString() const {
  std::string out;
  quillon::pki::PrintName(*this, &out);
  return out;
}

namespace quillon::pki {

void PrintName(const Name& name, std::string* out) {
  try {
    // A name lives in many small blocks (each RDN, each value): ask for
    // them all before reading, so that their memory reads overlap rather
    // than follow one another.
    for (const Name::RDN& rdn : name.rdns()) platform::Prefetch(rdn.data());
    for (const Name::RDN& rdn : name.rdns()) {
      for (const Name::Attribute& a : rdn) platform::Prefetch(a.value.data());
    }
    AttributeViews views;
    for (const Name::RDN& rdn : name.rdns()) {
      for (const Name::Attribute& a : rdn) {
        const size_t order = PrintedOrder(std::string_view(a.type));
        if (order != kNotPrinted) views.push({order, a.valueTag, der::Input(a.value)});
      }
    }
    PrintAttributes(&views, out);
  } catch (...) {
    out->clear();
  }
}

bool IsValidName(der::Input name_tlv) {
  try {
    std::vector<uint8_t> normalised;
    der::Input der_form;
    return AsDer(name_tlv, &normalised, &der_form) &&
           WalkDerName(der_form, [](bool, der::Input, int, der::Input) { return true; });
  } catch (...) {
    return false;
  }
}

bool IsValidNameInStrictDer(der::Input name_der) {
  return WalkDerName(name_der, [](bool, der::Input, int, der::Input) { return true; });
}

namespace {

// Prints a name in strict DER; false when the walk rejects it.
bool PrintDerForm(der::Input der_form, std::string* out) {
  AttributeViews views;
  if (!WalkDerName(der_form, [&views](bool, der::Input oid, int tag, der::Input value) {
        const size_t order = PrintedOrder(oid);
        if (order != kNotPrinted) views.push({order, tag, value});
        return true;
      })) {
    return false;
  }
  PrintAttributes(&views, out);
  return true;
}

}  // namespace

bool PrintNameDer(der::Input name_tlv, std::string* out) {
  out->clear();
  try {
    std::vector<uint8_t> normalised;
    der::Input der_form;
    return AsDer(name_tlv, &normalised, &der_form) && PrintDerForm(der_form, out);
  } catch (...) {
    out->clear();
    return false;
  }
}

bool PrintStrictDerName(der::Input name_der, std::string* out) {
  out->clear();
  try {
    return PrintDerForm(name_der, out);
  } catch (...) {
    out->clear();
    return false;
  }
}

}  // namespace quillon::pki

void Name::normalise() {
  for (RDN& rdn : rdns_) {
    for (Attribute& a : rdn) quillon::NormaliseAttribute(&a);
  }
}

std::string Name::attributeText(const char* type) const {
  if (type == nullptr) return {};
  try {
    std::string oid;
    if (!quillon::ResolveType(type, &oid)) return {};
    for (const RDN& rdn : rdns_) {
      for (const Attribute& a : rdn) {
        if (a.type == oid) return quillon::ValueText(a);
      }
    }
  } catch (...) {
  }
  return {};
}

bool Name::operator==(const Name& other) const { return encode() == other.encode(); }
