#include "pki/x509_common.h"

#include <array>
#include <cstring>
#include <set>
#include <string_view>

namespace quillon::pki {

bool MakeDerSource(der::Input input, DerSource* out) {
  // The whole input is checked (nested BER counts too, not only the outer
  // length); only input that is not DER is rewritten.
  out->bytes.clear();
  if (input.empty() || (input[0] & 0x20) == 0) return false;
  if (der::IsStrictDer(input)) {
    out->bytes.assign(input.begin(), input.end());
    out->was_strict = true;
    return true;
  }
  out->was_strict = false;
  return der::NormaliseToDer(input, &out->bytes);
}

bool ReadTime(der::Parser* p, X500Time* out) {
  der::Tag tag;
  der::Input value;
  if (!p->PeekTag(&tag) || (tag != der::kUtcTime && tag != der::kGeneralizedTime)) return false;
  if (!p->ReadTagAndValue(&tag, &value)) return false;
  return out->fromContent(tag == der::kUtcTime ? X500Time::kUTCTime : X500Time::kGeneralizedTime,
                          value.data(), value.size());
}

bool ReadOptionalTime(der::Parser* p, X500Time* out, bool* present) {
  der::Tag tag;
  *present = false;
  if (!p->HasMore() || !p->PeekTag(&tag)) return true;
  if (tag != der::kUtcTime && tag != der::kGeneralizedTime) return true;
  *present = true;
  return ReadTime(p, out);
}

bool ReadGeneralizedTime(der::Parser* p, X500Time* out) {
  der::Input value;
  if (!p->Read(der::kGeneralizedTime, &value)) return false;
  return out->fromContent(X500Time::kGeneralizedTime, value.data(), value.size());
}

namespace {

// The content of an AlgorithmIdentifier, read bare: every certificate, CRL
// and response holds two or three.
bool ReadAlgorithmContent(der::Input value, der::Input* oid, bool prove_der) {
  der::BareReader r(value);
  if (!r.Read(0x06, oid) || !der::IsValidOid(*oid)) return false;
  if (r.AtEnd()) return true;
  // The parameters: one element of any kind, in DER, and nothing after it.
  der::Tag tag;
  der::Input params, whole;
  if (!r.ReadAny(&tag, &params, &whole) || !r.AtEnd()) return false;
  return !(prove_der && der::IsConstructed(tag) && !der::IsStrictDer(whole));
}

}  // namespace

bool ReadAlgorithmIdentifier(der::Parser* p, der::Input* whole, der::Input* oid, bool prove_der) {
  der::Tag tag;
  der::Input value;
  if (!p->PeekTag(&tag) || tag != der::kSequence) return false;
  return p->ReadElement(&tag, &value, whole) && ReadAlgorithmContent(value, oid, prove_der);
}

bool ReadAlgorithmIdentifier(der::BareReader* r, der::Input* whole, der::Input* oid,
                             bool prove_der) {
  der::Input value;
  return r->Read(0x30, &value, whole) && ReadAlgorithmContent(value, oid, prove_der);
}

bool ReadTime(der::BareReader* r, X500Time* out) {
  der::Input value;
  if (r->NextIs(0x17)) {
    return r->Read(0x17, &value) && out->fromContent(X500Time::kUTCTime, value.data(), value.size());
  }
  return r->Read(0x18, &value) &&
         out->fromContent(X500Time::kGeneralizedTime, value.data(), value.size());
}

namespace {

// The OIDs of the extensions read so far, to reject a repeated one. Their
// content octets are compared: valid OID encodings are minimal, so equal
// dotted texts mean equal octets. A handful are scanned on the stack; a
// longer list goes to an ordered set.
class SeenOids {
 public:
  // False when |oid| was seen before.
  bool insert(der::Input oid) {
    // Certificate and CRL extensions are mostly arcs of 2.5.29 (content
    // 55 1D nn): those are kept as bits.
    if (oid.size() == 3 && oid[0] == 0x55 && oid[1] == 0x1D && oid[2] < 0x80) {
      const uint64_t bit = uint64_t{1} << (oid[2] & 63);
      uint64_t& word = ce_arcs_[oid[2] >> 6];
      if (word & bit) return false;
      word |= bit;
      return true;
    }
    const std::string_view key = oid.AsStringView();
    if (many_.empty()) {
      for (size_t i = 0; i < count_; ++i) {
        if (few_[i] == key) return false;
      }
      if (count_ < few_.size()) {
        few_[count_++] = key;
        return true;
      }
      many_.insert(few_.begin(), few_.end());
    }
    return many_.insert(key).second;
  }

 private:
  uint64_t ce_arcs_[2] = {0, 0};
  std::array<std::string_view, 8> few_;
  size_t count_ = 0;
  std::set<std::string_view> many_;
};

// Extensions ::= SEQUENCE SIZE (1..MAX) OF Extension
// Walks and checks the extensions, handing each to |fn|(oid, critical, value)
// once it is known good; the one reader behind checking and materialising.
template <class F>
bool WalkExtensions(der::Input content, F&& fn) {
  // Read bare, without Parsers: this runs for every certificate and CRL
  // entry with extensions.
  const uint8_t* const p = content.data();
  const size_t n = content.size();
  if (n == 0) return false;  // SIZE (1..MAX)
  SeenOids seen;
  size_t at = 0, len = 0;
  while (at < n) {
    if (!der::detail::ReadDerElement(p, n, &at, 0x30, &len)) return false;
    const size_t end = at + len;
    if (!der::detail::ReadDerElement(p, end, &at, 0x06, &len)) return false;
    const der::Input oid(p + at, len);
    if (!der::IsValidOid(oid)) return false;
    at += len;
    bool critical = false;
    if (at < end && p[at] == 0x01) {
      if (!der::detail::ReadDerElement(p, end, &at, 0x01, &len) || len != 1) return false;
      critical = p[at] != 0;
      at += len;
    }
    if (!der::detail::ReadDerElement(p, end, &at, 0x04, &len) || len != end - at) return false;
    const der::Input value(p + at, len);
    at = end;
    if (!seen.insert(oid)) return false;
    fn(oid, critical, value);
  }
  return true;
}

}  // namespace

bool CheckExtensions(der::Input content) {
  return WalkExtensions(content, [](der::Input, bool, der::Input) {});
}

bool ParseExtensions(der::Input content, std::vector<Extension>* out) {
  out->clear();
  return WalkExtensions(content, [out](der::Input oid, bool critical, der::Input value) {
    Extension e;
    e.oid = OidText(oid);
    e.critical = critical;
    e.value = value.ToVector();
    out->push_back(std::move(e));
  });
}

const Extension* FindExtension(const std::vector<Extension>& exts, const char* oid) {
  if (!oid) return nullptr;
  for (const auto& e : exts) {
    if (e.oid == oid) return &e;
  }
  return nullptr;
}

bool ReadSerial(der::Parser* p, der::Input* content) {
  return p->Read(der::kInteger, content) && !content->empty();
}

const BigInteger& ZeroInteger() {
  static const BigInteger zero;
  return zero;
}
const Name& EmptyName() {
  static const Name empty;
  return empty;
}
const X500Time& NoTime() {
  static const X500Time none;
  return none;
}
const std::vector<Extension>& NoExtensions() {
  static const std::vector<Extension> none;
  return none;
}

std::string OidText(der::Input content) {
  std::string text;
  if (!der::OidToText(content, &text)) return {};
  return text;
}

}  // namespace quillon::pki
