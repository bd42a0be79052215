#include "quillon32/extensions.h"

#include "pki/der.h"
#include "pki/x509_common.h"

namespace {

using quillon::der::Input;
using quillon::der::Parser;
namespace der = quillon::der;

// GeneralName ::= CHOICE { otherName [0] OtherName, rfc822Name [1] IA5String,
//   dNSName [2] IA5String, x400Address [3] ORAddress, directoryName [4] Name,
//   ediPartyName [5] EDIPartyName, uniformResourceIdentifier [6] IA5String,
//   iPAddress [7] OCTET STRING, registeredID [8] OBJECT IDENTIFIER }
bool ReadGeneralName(Parser* p, GeneralName* out) {
  der::Tag tag;
  Input value;
  if (!p->ReadTagAndValue(&tag, &value)) return false;
  if (der::ClassOf(tag) != der::TagClass::kContextSpecific) return false;
  const uint32_t n = der::TagNumber(tag);
  if (n > 8) return false;
  out->kind = static_cast<int>(n);
  if (n == GeneralName::kDirectoryName) {
    // Explicitly tagged (the Name is a CHOICE): the content is the Name element.
    if (!der::IsConstructed(tag)) return false;
    Parser inner(value);
    Input name;
    if (!inner.ReadRawTLV(&name) || inner.HasMore()) return false;
    out->value = name.ToVector();
  } else {
    out->value = value.ToVector();
  }
  return true;
}

void WriteGeneralName(der::Writer* w, const GeneralName& g) {
  if (g.kind == GeneralName::kDirectoryName) {
    w->Open(der::ContextSpecificConstructed(4));
    w->AddRaw(Input(g.value));
    w->Close();
    return;
  }
  const bool constructed = g.kind == GeneralName::kOtherName || g.kind == GeneralName::kX400Address ||
                           g.kind == GeneralName::kEdiPartyName;
  w->AddTLV(constructed ? der::ContextSpecificConstructed(g.kind) : der::ContextSpecific(g.kind),
            Input(g.value));
}

}  // namespace

bool GeneralName::directoryName(Name* out) const {
  return kind == kDirectoryName && out->decode(value.data(), value.size());
}

bool decodeGeneralNames(const unsigned char* content, size_t length,
                        std::vector<GeneralName>* out) {
  std::vector<GeneralName> names;
  Parser p(Input(content, length));
  if (!p.HasMore()) return false;  // SIZE (1..MAX)
  while (p.HasMore()) {
    GeneralName g;
    if (!ReadGeneralName(&p, &g)) return false;
    names.push_back(std::move(g));
  }
  *out = std::move(names);
  return true;
}

// ---------------------------------------------------------------------------

bool AuthorityKeyIdentifier::decode(const unsigned char* der_bytes, size_t length) {
  Parser outer(Input(der_bytes, length));
  Parser seq;
  if (!outer.ReadSequence(&seq) || outer.HasMore()) return false;
  AuthorityKeyIdentifier result;
  Input value;
  bool present = false;
  if (!seq.ReadOptional(der::ContextSpecific(0), &value, &present)) return false;
  if (present) {
    result.hasKeyIdentifier_ = true;
    result.keyIdentifier_ = value.ToVector();
  }
  if (!seq.ReadOptional(der::ContextSpecificConstructed(1), &value, &present)) return false;
  if (present && !decodeGeneralNames(value.data(), value.size(), &result.issuer_)) return false;
  if (!seq.ReadOptional(der::ContextSpecific(2), &value, &present)) return false;
  if (present) {
    if (value.empty() || !result.serial_.fromDerContent(value.data(), value.size())) return false;
    result.hasSerial_ = true;
  }
  if (seq.HasMore()) return false;
  *this = std::move(result);
  return true;
}

std::vector<unsigned char> AuthorityKeyIdentifier::encode() const {
  der::Writer w;
  w.Open(der::kSequence);
  if (hasKeyIdentifier_) w.AddTLV(der::ContextSpecific(0), Input(keyIdentifier_));
  if (!issuer_.empty()) {
    w.Open(der::ContextSpecificConstructed(1));
    for (const auto& g : issuer_) WriteGeneralName(&w, g);
    w.Close();
  }
  if (hasSerial_) w.AddTLV(der::ContextSpecific(2), Input(serial_.toDerContent()));
  w.Close();
  return w.Take();
}

void AuthorityKeyIdentifier::setKeyIdentifier(const unsigned char* id, size_t length) {
  hasKeyIdentifier_ = true;
  keyIdentifier_.assign(id, id + length);
}

bool AuthorityKeyIdentifier::operator==(const AuthorityKeyIdentifier& o) const {
  return encode() == o.encode();
}

// ---------------------------------------------------------------------------

DistributionPointName::DistributionPointName(const char* uri) { addURI(uri); }

void DistributionPointName::addURI(const char* uri) {
  if (!uri) return;
  relative_ = false;
  GeneralName g;
  g.kind = GeneralName::kUniformResourceIdentifier;
  g.value.assign(uri, uri + std::char_traits<char>::length(uri));
  fullName_.push_back(std::move(g));
}

bool DistributionPointName::decode(const unsigned char* der_bytes, size_t length) {
  Parser p(Input(der_bytes, length));
  der::Tag tag;
  Input value;
  if (!p.ReadTagAndValue(&tag, &value) || p.HasMore()) return false;
  DistributionPointName result;
  if (tag == der::ContextSpecificConstructed(0)) {
    if (!decodeGeneralNames(value.data(), value.size(), &result.fullName_)) return false;
  } else if (tag == der::ContextSpecificConstructed(1)) {
    // RelativeDistinguishedName, implicitly tagged: decode it as a one-RDN Name.
    std::vector<uint8_t> name;
    der::AppendHeader(der::kSet, value.size(), &name);
    name.insert(name.end(), value.begin(), value.end());
    std::vector<uint8_t> seq;
    der::AppendHeader(der::kSequence, name.size(), &seq);
    seq.insert(seq.end(), name.begin(), name.end());
    Name n;
    if (!n.decode(seq.data(), seq.size()) || n.rdns().size() != 1) return false;
    result.relative_ = true;
    result.rdn_ = n.rdns()[0];
  } else {
    return false;
  }
  *this = std::move(result);
  return true;
}

std::vector<unsigned char> DistributionPointName::encode() const {
  der::Writer w;
  if (!relative_) {
    w.Open(der::ContextSpecificConstructed(0));
    for (const auto& g : fullName_) WriteGeneralName(&w, g);
    w.Close();
    return w.Take();
  }
  Name n;
  n.rdns().push_back(rdn_);
  const std::vector<unsigned char> name = n.encode();
  // Name = SEQUENCE { SET {...} }: re-tag the SET's content as [1].
  Parser outer{Input(name)};
  Parser seq;
  Input set;
  if (outer.ReadSequence(&seq) && seq.Read(der::kSet, &set)) {
    w.AddTLV(der::ContextSpecificConstructed(1), set);
  }
  return w.Take();
}

std::vector<std::string> DistributionPointName::uris() const {
  std::vector<std::string> out;
  if (relative_) return out;
  for (const auto& g : fullName_) {
    if (g.kind == GeneralName::kUniformResourceIdentifier) out.push_back(g.text());
  }
  return out;
}
