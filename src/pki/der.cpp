#include "pki/der.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace quillon::der {

bool operator==(const Input& a, const Input& b) {
  return a.size_ == b.size_ && (a.size_ == 0 || std::memcmp(a.data_, b.data_, a.size_) == 0);
}

bool operator<(const Input& a, const Input& b) {
  const size_t n = std::min(a.size_, b.size_);
  const int c = n == 0 ? 0 : std::memcmp(a.data_, b.data_, n);
  return c < 0 || (c == 0 && a.size_ < b.size_);
}

// ---------------------------------------------------------------------------
// Parser

// Walks the elements of an indefinite-length content up to its end-of-contents
// octets and reports the content length (without those two octets).
bool Parser::FindEndOfContents(size_t content_start, uint32_t depth, size_t* content_len) const {
  if (depth > limits_.max_depth) return false;
  size_t at = content_start;
  for (;;) {
    if (input_.size() - at < 2) return false;
    if (input_[at] == 0 && input_[at + 1] == 0) {
      *content_len = at - content_start;
      return true;
    }
    Tag tag;
    size_t header_len, len;
    bool indefinite;
    if (!ParseHeader(at, &tag, &header_len, &len, &indefinite)) return false;
    if (indefinite) {
      if (!FindEndOfContents(at + header_len, depth + 1, &len)) return false;
      len += 2;
    }
    if (len > input_.size() - at - header_len) return false;
    at += header_len + len;
  }
}

bool Parser::ReadBool(bool* out) {
  Input v;
  if (!Read(kBoolean, &v) || v.size() != 1) return Fail();
  if (mode_ == Mode::kDer && v[0] != 0x00 && v[0] != 0xFF) return Fail();
  *out = v[0] != 0;
  return true;
}

// X.690 8.3.2: the first nine bits of a multi-octet INTEGER are not all equal.
static bool IsMinimalInteger(Input v) {
  if (v.empty()) return false;
  if (v.size() > 1) {
    if (v[0] == 0x00 && !(v[1] & 0x80)) return false;
    if (v[0] == 0xFF && (v[1] & 0x80)) return false;
  }
  return true;
}

bool Parser::ReadInteger(Input* content) {
  Input v;
  if (!Read(kInteger, &v)) return false;
  if (v.empty() || (mode_ == Mode::kDer && !IsMinimalInteger(v))) return Fail();
  *content = v;
  return true;
}

static bool SmallUnsigned(Input v, uint64_t* out) {
  if (v.empty() || (v[0] & 0x80)) return false;  // negative
  size_t i = 0;
  while (i + 1 < v.size() && v[i] == 0) ++i;
  if (v.size() - i > 8) return false;
  uint64_t r = 0;
  for (; i < v.size(); ++i) r = (r << 8) | v[i];
  *out = r;
  return true;
}

bool Parser::ReadUint64(uint64_t* out) {
  Input v;
  if (!ReadInteger(&v)) return false;
  return SmallUnsigned(v, out) || Fail();
}

bool Parser::ReadEnumerated(uint64_t* out) {
  Input v;
  if (!Read(kEnumerated, &v)) return false;
  if (mode_ == Mode::kDer && !IsMinimalInteger(v)) return Fail();
  return SmallUnsigned(v, out) || Fail();
}

bool Parser::ReadOid(Input* content) {
  // Nearly every OID is short: its header is two octets, read here without
  // the general header decoder (a short-form length is valid in DER and BER).
  if (!failed_ && input_.size() - pos_ >= 2 && pos_ < input_.size() && input_[pos_] == 0x06 &&
      input_[pos_ + 1] < 0x80 && input_[pos_ + 1] <= input_.size() - pos_ - 2) {
    const Input v(input_.data() + pos_ + 2, input_[pos_ + 1]);
    if (!IsValidOid(v)) return Fail();
    pos_ += 2 + v.size();
    *content = v;
    return true;
  }
  Input v;
  if (!Read(kOid, &v)) return false;
  if (!IsValidOid(v)) return Fail();
  *content = v;
  return true;
}

bool Parser::ReadBitString(Input* bits, uint8_t* unused_bits) {
  Input v;
  if (!Read(kBitString, &v) || !SplitBitString(v, mode_, bits, unused_bits)) return Fail();
  return true;
}

// ---------------------------------------------------------------------------
// Writer

void AppendHeader(Tag tag, size_t len, std::vector<uint8_t>* out) {
  const uint8_t cls = static_cast<uint8_t>((tag >> 24) & 0xE0);
  const uint32_t number = TagNumber(tag);
  if (number < 31) {
    out->push_back(static_cast<uint8_t>(cls | number));
  } else {
    out->push_back(static_cast<uint8_t>(cls | 0x1F));
    uint8_t tmp[5];
    int k = 0;
    uint32_t n = number;
    do {
      tmp[k++] = static_cast<uint8_t>(n & 0x7F);
      n >>= 7;
    } while (n);
    while (k > 1) out->push_back(static_cast<uint8_t>(tmp[--k] | 0x80));
    out->push_back(tmp[0]);
  }
  if (len < 0x80) {
    out->push_back(static_cast<uint8_t>(len));
  } else {
    uint8_t tmp[8];
    int k = 0;
    size_t n = len;
    while (n) {
      tmp[k++] = static_cast<uint8_t>(n & 0xFF);
      n >>= 8;
    }
    out->push_back(static_cast<uint8_t>(0x80 | k));
    while (k) out->push_back(tmp[--k]);
  }
}

void Writer::AddTLV(Tag tag, Input content) {
  AppendHeader(tag, content.size(), out_);
  out_->insert(out_->end(), content.begin(), content.end());
}

void Writer::AddRaw(Input tlvs) { out_->insert(out_->end(), tlvs.begin(), tlvs.end()); }

void Writer::AddInteger(uint64_t value) {
  uint8_t tmp[9];
  int k = 0;
  do {
    tmp[k++] = static_cast<uint8_t>(value & 0xFF);
    value >>= 8;
  } while (value);
  if (tmp[k - 1] & 0x80) tmp[k++] = 0;
  std::vector<uint8_t> content;
  while (k) content.push_back(tmp[--k]);
  AddTLV(kInteger, Input(content));
}

void Writer::AddBool(bool value) {
  const uint8_t b = value ? 0xFF : 0x00;
  AddTLV(kBoolean, Input(&b, 1));
}

void Writer::AddNull() { AddTLV(kNull, Input()); }

bool Writer::AddOid(std::string_view dotted) {
  std::vector<uint8_t> content;
  if (!OidFromText(dotted, &content)) return false;
  AddTLV(kOid, Input(content));
  return true;
}

void Writer::AddBitString(Input bits, uint8_t unused_bits) {
  AppendHeader(kBitString, bits.size() + 1, out_);
  out_->push_back(unused_bits);
  out_->insert(out_->end(), bits.begin(), bits.end());
}

void Writer::Open(Tag tag) {
  AppendHeader(tag, 0, out_);  // placeholder one-octet length, fixed on Close
  open_.push_back(out_->size());
}

void Writer::Close() {
  if (open_.empty()) return;
  const size_t start = open_.back();
  open_.pop_back();
  const size_t len = out_->size() - start;
  if (len < 0x80) {
    (*out_)[start - 1] = static_cast<uint8_t>(len);
    return;
  }
  std::vector<uint8_t> header;
  AppendHeader(0, len, &header);  // only the length octets are used
  header.erase(header.begin());
  (*out_)[start - 1] = header[0];
  out_->insert(out_->begin() + static_cast<ptrdiff_t>(start), header.begin() + 1, header.end());
}

// ---------------------------------------------------------------------------
// Object identifiers (X.690 8.19)

namespace {

// Walks the arcs of OID content octets, handing each to |arc_fn| (the first
// one as the combined first subidentifier). False when malformed: empty,
// over 1024 octets, a truncated or non-minimal arc, or an arc beyond 64 bits.
template <class F>
bool ForEachArc(Input v, F&& arc_fn) {
  if (v.empty() || v.size() > 1024) return false;
  size_t i = 0;
  while (i < v.size()) {
    if (v[i] == 0x80) return false;  // non-minimal arc
    uint64_t arc = 0;
    for (;;) {
      if (i >= v.size()) return false;  // truncated arc
      if (arc > (UINT64_MAX >> 7)) return false;
      const uint8_t b = v[i++];
      arc = (arc << 7) | (b & 0x7F);
      if (!(b & 0x80)) break;
    }
    arc_fn(arc);
  }
  return true;
}

}  // namespace

namespace detail {

bool IsValidLongOid(Input v) {
  if (v.empty() || v.size() > 1024 || (v[v.size() - 1] & 0x80)) return false;
  size_t continued = 0;
  for (const uint8_t b : v) {
    if (continued == 0 && b == 0x80) return false;  // non-minimal arc
    if (!(b & 0x80)) {
      continued = 0;
    } else if (++continued == 8) {
      // An arc that may pass 64 bits: walked in full.
      return ForEachArc(v, [](uint64_t) {});
    }
  }
  return true;
}

}  // namespace detail

bool OidToText(Input v, std::string* out) {
  out->clear();
  bool first = true;
  const bool ok = ForEachArc(v, [&](uint64_t arc) {
    if (first) {
      const uint64_t top = arc < 40 ? 0 : arc < 80 ? 1 : 2;
      *out += std::to_string(top);
      *out += '.';
      *out += std::to_string(arc - top * 40);
      first = false;
    } else {
      *out += '.';
      *out += std::to_string(arc);
    }
  });
  if (!ok) out->clear();
  return ok;
}

static void AppendBase128(uint64_t arc, std::vector<uint8_t>* out) {
  uint8_t tmp[10];
  int k = 0;
  do {
    tmp[k++] = static_cast<uint8_t>(arc & 0x7F);
    arc >>= 7;
  } while (arc);
  while (k > 1) out->push_back(static_cast<uint8_t>(tmp[--k] | 0x80));
  out->push_back(tmp[0]);
}

bool OidFromText(std::string_view dotted, std::vector<uint8_t>* content) {
  content->clear();
  std::vector<uint64_t> arcs;
  size_t i = 0;
  while (i <= dotted.size()) {
    const size_t dot = std::min(dotted.find('.', i), dotted.size());
    const std::string_view part = dotted.substr(i, dot - i);
    if (part.empty() || (part.size() > 1 && part[0] == '0')) return false;
    uint64_t arc = 0;
    auto [p, ec] = std::from_chars(part.data(), part.data() + part.size(), arc);
    if (ec != std::errc() || p != part.data() + part.size()) return false;
    arcs.push_back(arc);
    i = dot + 1;
  }
  if (arcs.size() < 2 || arcs[0] > 2 || (arcs[0] < 2 && arcs[1] >= 40)) return false;
  if (arcs[1] > UINT64_MAX - 80) return false;
  AppendBase128(arcs[0] * 40 + arcs[1], content);
  for (size_t k = 2; k < arcs.size(); ++k) AppendBase128(arcs[k], content);
  return true;
}

Oid::Oid(std::string_view dotted) : text_(dotted) {
  if (!OidFromText(dotted, &content_)) content_.clear();
}

// ---------------------------------------------------------------------------
// BER to DER

namespace {

// Universal types whose BER form may be constructed from segments.
bool IsStringType(uint32_t number) {
  switch (number) {
    case 3: case 4: case 12: case 18: case 19: case 20: case 21: case 22: case 23:
    case 24: case 25: case 26: case 27: case 28: case 29: case 30:
      return true;
    default:
      return false;
  }
}

// Joins the segments of a constructed string, recursively.
bool JoinSegments(Parser* p, uint32_t number, std::vector<uint8_t>* out, uint8_t* unused,
                  uint32_t depth, const Limits& limits) {
  if (depth > limits.max_depth) return false;
  while (p->HasMore()) {
    Tag tag;
    Input value;
    if (!p->ReadTagAndValue(&tag, &value)) return false;
    if (ClassOf(tag) != TagClass::kUniversal || TagNumber(tag) != number) return false;
    if (*unused != 0) return false;  // only the last bit-string segment may leave bits unused
    if (IsConstructed(tag)) {
      Parser child(value, Mode::kBer, limits);
      if (!JoinSegments(&child, number, out, unused, depth + 1, limits)) return false;
    } else if (number == 3) {
      if (value.empty() || value[0] > 7) return false;
      *unused = value[0];
      out->insert(out->end(), value.begin() + 1, value.end());
    } else {
      out->insert(out->end(), value.begin(), value.end());
    }
    if (out->size() > limits.max_element_size) return false;
  }
  return true;
}

bool NormaliseElements(Parser* p, uint32_t depth, bool sort_as_set, std::vector<uint8_t>* out,
                       const Limits& limits);

bool NormaliseOne(Parser* p, uint32_t depth, std::vector<uint8_t>* out, const Limits& limits) {
  if (depth > limits.max_depth) return false;
  Tag tag;
  Input value;
  if (!p->ReadTagAndValue(&tag, &value)) return false;
  if (!IsConstructed(tag)) {
    AppendHeader(tag, value.size(), out);
    out->insert(out->end(), value.begin(), value.end());
    return true;
  }
  Parser child(value, Mode::kBer, limits);
  if (ClassOf(tag) == TagClass::kUniversal && IsStringType(TagNumber(tag))) {
    std::vector<uint8_t> joined;
    uint8_t unused = 0;
    if (!JoinSegments(&child, TagNumber(tag), &joined, &unused, depth + 1, limits)) return false;
    const Tag primitive = tag & ~kTagConstructedBit;
    if (TagNumber(tag) == 3) {
      AppendHeader(primitive, joined.size() + 1, out);
      out->push_back(unused);
    } else {
      AppendHeader(primitive, joined.size(), out);
    }
    out->insert(out->end(), joined.begin(), joined.end());
    return true;
  }
  std::vector<uint8_t> content;
  if (!NormaliseElements(&child, depth + 1, tag == kSet, &content, limits)) return false;
  AppendHeader(tag, content.size(), out);
  out->insert(out->end(), content.begin(), content.end());
  return true;
}

bool NormaliseElements(Parser* p, uint32_t depth, bool sort_as_set, std::vector<uint8_t>* out,
                       const Limits& limits) {
  if (!sort_as_set) {
    while (p->HasMore()) {
      if (!NormaliseOne(p, depth, out, limits)) return false;
    }
    return true;
  }
  // X.690 11.6: the components of a SET OF in ascending order of their encodings.
  std::vector<std::vector<uint8_t>> items;
  while (p->HasMore()) {
    items.emplace_back();
    if (!NormaliseOne(p, depth, &items.back(), limits)) return false;
  }
  std::sort(items.begin(), items.end(),
            [](const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
              return Input(a) < Input(b);
            });
  for (const auto& item : items) out->insert(out->end(), item.begin(), item.end());
  return true;
}

}  // namespace

bool NormaliseToDer(Input ber, std::vector<uint8_t>* out, Limits limits) {
  out->clear();
  Parser p(ber, Mode::kBer, limits);
  if (!NormaliseOne(&p, 0, out, limits) || p.HasMore() || !p.Remaining().empty()) {
    out->clear();
    return false;
  }
  return true;
}

namespace {

// Walks the elements of |in| as strict DER: constructed strings are not
// DER, and the elements of a SET must stand in ascending order of their
// encodings, as NormaliseToDer() would sort them.
bool WalkStrict(Input in, uint32_t depth, bool is_set, const Limits& limits) {
  if (depth > limits.max_depth) return false;
  const uint8_t* p = in.data();
  const size_t n = in.size();
  size_t pos = 0;
  Input previous;
  bool first = true;
  while (pos < n) {
    Tag tag;
    size_t header_len, len;
    bool indefinite;
    if (!detail::DecodeHeader(p, n, pos, Mode::kDer, &tag, &header_len, &len, &indefinite)) return false;
    if (len > n - pos - header_len || len > limits.max_element_size) return false;
    const Input whole(p + pos, header_len + len);
    const Input value(p + pos + header_len, len);
    pos += header_len + len;
    if (is_set) {
      if (!first && whole < previous) return false;
      previous = whole;
      first = false;
    }
    if (!IsConstructed(tag)) continue;
    if (ClassOf(tag) == TagClass::kUniversal && IsStringType(TagNumber(tag))) return false;
    if (!WalkStrict(value, depth + 1, tag == kSet, limits)) return false;
  }
  return true;
}

}  // namespace

bool IsStrictDer(Input input, Limits limits) {
  // One element, then nothing; checked without copying or allocating, so
  // that DER input (the usual case) costs one walk.
  Parser strict(input, Mode::kDer, limits);
  Input whole;
  if (!strict.ReadRawTLV(&whole) || strict.HasMore()) return false;
  return WalkStrict(input, 0, false, limits);
}

}  // namespace quillon::der
