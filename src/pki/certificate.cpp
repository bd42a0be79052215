#include "quillon32/certificate.h"

#include <climits>
#include <cstring>

#include "pki/certificate_parts.h"
#include "pki/der.h"
#include "pki/name_der.h"
#include "pki/x509_common.h"
#include "quillon32/buffer.h"

using quillon::der::Input;
using quillon::der::Parser;
namespace der = quillon::der;
namespace pki = quillon::pki;

namespace quillon::pki {

// Certificate ::= SEQUENCE { tbsCertificate TBSCertificate,
//   signatureAlgorithm AlgorithmIdentifier, signatureValue BIT STRING }
//
// TBSCertificate ::= SEQUENCE { version [0] EXPLICIT Version DEFAULT v1,
//   serialNumber CertificateSerialNumber, signature AlgorithmIdentifier,
//   issuer Name, validity Validity, subject Name,
//   subjectPublicKeyInfo SubjectPublicKeyInfo,
//   issuerUniqueID [1] IMPLICIT UniqueIdentifier OPTIONAL,
//   subjectUniqueID [2] IMPLICIT UniqueIdentifier OPTIONAL,
//   extensions [3] EXPLICIT Extensions OPTIONAL }
bool ReadCertificateParts(Input der_bytes, DerKnown known, CertificateParts* out,
                          bool check_issuer) {
  // The parser reads in DER mode, so every element it reads has a DER
  // header. Unchecked bytes are strict DER when, beyond that, the names (the
  // name walk reads in DER mode and wants sorted SETs and primitive values)
  // and any constructed algorithm parameters are; the other elements it
  // does not enter are primitive.
  const bool prove_der = known == DerKnown::kUnchecked;
  const auto valid_name = [known](Input name) {
    return known == DerKnown::kRewritten ? pki::IsValidName(name)
                                         : pki::IsValidNameInStrictDer(name);
  };
  // Read bare (see der::BareReader): cache_trustedCA reads every
  // certificate it is asked about this way.
  der::BareReader outer(der_bytes);
  Input cert_content;
  if (!outer.Read(0x30, &cert_content) || !outer.AtEnd()) return false;
  der::BareReader cert(cert_content);
  Input sig_oid;
  // A signature with unused bits cannot be valid, but the certificate still
  // decodes: verification is where it fails.
  if (!cert.Read(0x30, &out->tbs_content, &out->tbs) ||
      !pki::ReadAlgorithmIdentifier(&cert, &out->sig_alg, &sig_oid, prove_der) ||
      !cert.ReadBitString(&out->sig_value, &out->sig_unused_bits) || !cert.AtEnd()) {
    return false;
  }

  der::BareReader p(out->tbs_content);
  Input content;
  out->version = 1;
  if (p.NextIs(0xA0)) {
    // [0] EXPLICIT INTEGER, minimal and at most 2: one octet.
    Input number;
    if (!p.Read(0xA0, &content)) return false;
    der::BareReader explicit_version(content);
    if (!explicit_version.Read(0x02, &number) || !explicit_version.AtEnd() ||
        number.size() != 1 || number[0] > 2) {
      return false;
    }
    out->version = number[0] + 1;
  }
  // The serial must also be one a BigInteger takes.
  if (!p.Read(0x02, &out->serial_content) || out->serial_content.empty() ||
      out->serial_content.size() > static_cast<size_t>(INT_MAX)) {
    return false;
  }
  Input inner_alg, inner_oid;
  der::Tag tag;
  if (!pki::ReadAlgorithmIdentifier(&p, &inner_alg, &inner_oid, prove_der)) return false;
  if (!p.ReadAny(&tag, &content, &out->issuer) || (check_issuer && !valid_name(out->issuer))) {
    return false;
  }
  // Validity ::= SEQUENCE { notBefore Time, notAfter Time }
  if (!p.Read(0x30, &content)) return false;
  der::BareReader validity(content);
  if (!pki::ReadTime(&validity, &out->not_before) || !pki::ReadTime(&validity, &out->not_after) ||
      !validity.AtEnd()) {
    return false;
  }
  if (!p.ReadAny(&tag, &content, &out->subject) || !valid_name(out->subject)) return false;
  // SubjectPublicKeyInfo ::= SEQUENCE { algorithm AlgorithmIdentifier,
  //   subjectPublicKey BIT STRING }
  if (!p.Read(0x30, &content, &out->spki)) return false;
  der::BareReader key(content);
  Input key_alg;
  uint8_t unused = 0;
  if (!pki::ReadAlgorithmIdentifier(&key, &key_alg, &out->key_alg_oid, prove_der) ||
      !key.ReadBitString(&out->public_key, &unused) || !key.AtEnd()) {
    return false;
  }
  // issuerUniqueID [1] and subjectUniqueID [2]: version 2 on.
  for (const uint8_t unique_id : {uint8_t{0x81}, uint8_t{0x82}}) {
    if (!p.NextIs(unique_id)) continue;
    if (!p.Read(unique_id, &content) || out->version < 2) return false;
  }
  out->has_extensions = p.NextIs(0xA3);
  out->extensions = Input();
  if (out->has_extensions) {
    if (out->version != 3 || !p.Read(0xA3, &content)) return false;
    der::BareReader exts(content);
    if (!exts.Read(0x30, &out->extensions) || !exts.AtEnd() ||
        !pki::CheckExtensions(out->extensions)) {
      return false;
    }
  }
  return p.AtEnd();
}

void MoveCertificateParts(CertificateParts* parts, const uint8_t* from, const uint8_t* to) {
  for (Input* view : {&parts->tbs, &parts->tbs_content, &parts->sig_alg, &parts->sig_value,
                      &parts->serial_content, &parts->issuer, &parts->subject, &parts->spki,
                      &parts->public_key, &parts->key_alg_oid, &parts->extensions}) {
    if (view->data()) *view = Input(to + (view->data() - from), view->size());
  }
}

bool CertificateDerForm(Input input, std::vector<uint8_t>* rewrite, Input* der_form,
                        Input* received_tbs) {
  // The whole input is checked (nested BER counts too, not only the outer
  // length); only input that is not DER is rewritten.
  *received_tbs = Input();
  rewrite->clear();
  if (input.empty() || (input[0] & 0x20) == 0) return false;
  if (der::IsStrictDer(input)) {
    *der_form = input;
    return true;
  }
  if (!der::NormaliseToDer(input, rewrite)) return false;
  *der_form = Input(*rewrite);
  // Keep the to-be-signed element exactly as it arrived.
  Parser outer(input, der::Mode::kBer);
  Parser cert;
  return outer.ReadSequence(&cert) && cert.ReadRawTLV(received_tbs);
}

bool PeekCertificateIssuerText(Input cert, std::string* text) {
  // DER, read once; the printer checks the issuer as it prints it (and
  // fails on a name that is not strict DER).
  CertificateParts parts;
  if (ReadCertificateParts(cert, DerKnown::kUnchecked, &parts, /*check_issuer=*/false) &&
      PrintStrictDerName(parts.issuer, text)) {
    return true;
  }
  // Not DER, or no certificate: the way decoding goes.
  std::vector<uint8_t> rewrite;
  Input der_form, received_tbs;
  return CertificateDerForm(cert, &rewrite, &der_form, &received_tbs) &&
         ReadCertificateParts(der_form,
                              received_tbs.empty() ? DerKnown::kStrict : DerKnown::kRewritten,
                              &parts) &&
         PrintNameDer(parts.issuer, text);
}

}  // namespace quillon::pki

struct Certificate::Impl {
  pki::DerSource src;
  // The to-be-signed bytes as received, kept only when the input was not DER.
  std::vector<uint8_t> received_tbs;

  // What the certificate reader found: views into src.bytes.
  pki::CertificateParts parts;
  BigInteger serial;
  Name issuer, subject;
  std::vector<Extension> extensions;

  // The checks are all made by the one certificate reader; what is left is
  // materialising what it found.
  bool Parse() {
    return pki::ReadCertificateParts(
               Input(src.bytes), src.was_strict ? pki::DerKnown::kStrict : pki::DerKnown::kRewritten,
               &parts) &&
           Materialise();
  }

  // Makes the objects from |parts|.
  bool Materialise() {
    extensions.clear();
    return serial.fromDerContent(parts.serial_content.data(), parts.serial_content.size()) &&
           issuer.decode(parts.issuer.data(), parts.issuer.size()) &&
           subject.decode(parts.subject.data(), parts.subject.size()) &&
           (!parts.has_extensions || pki::ParseExtensions(parts.extensions, &extensions));
  }
};

Certificate::Certificate() = default;
Certificate::~Certificate() = default;
Certificate::Certificate(Certificate&&) noexcept = default;
Certificate& Certificate::operator=(Certificate&&) noexcept = default;

Certificate::Certificate(const Certificate& other) {
  if (other.impl_) {
    // The objects are copied as they are; the views move onto the copy's bytes.
    auto copy = std::make_unique<Impl>(*other.impl_);
    pki::MoveCertificateParts(&copy->parts, other.impl_->src.bytes.data(), copy->src.bytes.data());
    impl_ = std::move(copy);
  }
}

Certificate& Certificate::operator=(const Certificate& other) {
  if (this != &other) {
    Certificate copy(other);
    impl_ = std::move(copy.impl_);
  }
  return *this;
}

bool Certificate::decode(const unsigned char* bytes, size_t length) {
  impl_.reset();
  if (!bytes || length == 0) return false;
  auto impl = std::make_unique<Impl>();
  const Input input(bytes, length);
  if (pki::ReadCertificateParts(input, pki::DerKnown::kUnchecked, &impl->parts)) {
    // Strict DER, read once: keep a copy and the views moved onto it.
    impl->src.bytes.assign(bytes, bytes + length);
    impl->src.was_strict = true;
    pki::MoveCertificateParts(&impl->parts, bytes, impl->src.bytes.data());
    if (!impl->Materialise()) return false;
    impl_ = std::move(impl);
    return true;
  }
  std::vector<uint8_t> rewrite;
  Input der_form, received_tbs;
  if (!pki::CertificateDerForm(input, &rewrite, &der_form, &received_tbs)) {
    return false;
  }
  impl->src.was_strict = received_tbs.empty();
  if (impl->src.was_strict) {
    impl->src.bytes.assign(der_form.begin(), der_form.end());
  } else {
    impl->src.bytes = std::move(rewrite);
    impl->received_tbs = received_tbs.ToVector();
  }
  if (!impl->Parse()) return false;
  impl_ = std::move(impl);
  return true;
}

bool Certificate::decodePEM(const char* text, size_t length) {
  impl_.reset();
  if (!text) return false;
  const std::string s(text, length);
  size_t pos = 0;
  Buffer b;
  std::string label;
  while (pos < s.size()) {
    if (b.readPEMBlock(s, &pos, &label) && label == "CERTIFICATE") return decode(b.data(), b.size());
  }
  return false;
}

bool Certificate::isDecoded() const { return impl_ != nullptr; }

std::vector<unsigned char> Certificate::encode() const {
  if (!impl_) return {};
  return impl_->src.bytes;
}

ByteView Certificate::der() const {
  if (!impl_) return {};
  return ByteView{impl_->src.bytes.data(), impl_->src.bytes.size()};
}

bool Certificate::isStrictDER() const { return impl_ && impl_->src.was_strict; }

int Certificate::version() const { return impl_ ? impl_->parts.version : 0; }
const BigInteger& Certificate::serialNumber() const { return impl_ ? impl_->serial : pki::ZeroInteger(); }
const Name& Certificate::issuer() const { return impl_ ? impl_->issuer : pki::EmptyName(); }
const Name& Certificate::subject() const { return impl_ ? impl_->subject : pki::EmptyName(); }
const X500Time& Certificate::notBefore() const { return impl_ ? impl_->parts.not_before : pki::NoTime(); }
const X500Time& Certificate::notAfter() const { return impl_ ? impl_->parts.not_after : pki::NoTime(); }

ByteView Certificate::tbsCertificate() const {
  if (!impl_) return {};
  if (!impl_->received_tbs.empty())
    return ByteView{impl_->received_tbs.data(), impl_->received_tbs.size()};
  return pki::ToView(impl_->parts.tbs);
}
ByteView Certificate::signatureAlgorithm() const { return impl_ ? pki::ToView(impl_->parts.sig_alg) : ByteView{}; }
ByteView Certificate::signatureValue() const { return impl_ ? pki::ToView(impl_->parts.sig_value) : ByteView{}; }
int Certificate::signatureUnusedBits() const { return impl_ ? impl_->parts.sig_unused_bits : 0; }
ByteView Certificate::issuerBytes() const { return impl_ ? pki::ToView(impl_->parts.issuer) : ByteView{}; }
ByteView Certificate::subjectBytes() const { return impl_ ? pki::ToView(impl_->parts.subject) : ByteView{}; }
ByteView Certificate::subjectPublicKeyInfo() const { return impl_ ? pki::ToView(impl_->parts.spki) : ByteView{}; }
ByteView Certificate::subjectPublicKey() const { return impl_ ? pki::ToView(impl_->parts.public_key) : ByteView{}; }

std::string Certificate::publicKeyAlgorithm() const {
  return impl_ ? pki::OidText(impl_->parts.key_alg_oid) : std::string();
}

const std::vector<Extension>& Certificate::extensions() const {
  return impl_ ? impl_->extensions : pki::NoExtensions();
}

const Extension* Certificate::extension(const char* oid) const {
  return impl_ ? pki::FindExtension(impl_->extensions, oid) : nullptr;
}

bool Certificate::authorityKeyIdentifier(AuthorityKeyIdentifier* out) const {
  const Extension* e = extension("2.5.29.35");
  return e && out && out->decode(e->value.data(), e->value.size());
}

// SubjectKeyIdentifier ::= KeyIdentifier ::= OCTET STRING
bool Certificate::subjectKeyIdentifier(std::vector<unsigned char>* out) const {
  const Extension* e = extension("2.5.29.14");
  if (!e || !out) return false;
  Parser p{Input(e->value)};
  Input id;
  if (!p.Read(der::kOctetString, &id) || p.HasMore()) return false;
  *out = id.ToVector();
  return true;
}

// KeyUsage ::= BIT STRING { digitalSignature (0), ... cRLSign (6), ... decipherOnly (8) }
bool Certificate::keyUsage(unsigned* bits) const {
  const Extension* e = extension("2.5.29.15");
  if (!e || !bits) return false;
  Input v;
  uint8_t unused = 0;
  // Lenient on trailing zero bits: many CAs encode them.
  Parser lenient(Input(e->value), der::Mode::kBer);
  if (!lenient.ReadBitString(&v, &unused) || lenient.HasMore()) return false;
  unsigned mask = 0;
  for (size_t i = 0; i < v.size() && i < 2; ++i) {
    for (int b = 0; b < 8; ++b) {
      if (v[i] & (0x80 >> b)) mask |= 1u << (i * 8 + b);
    }
  }
  *bits = mask;
  return true;
}

// ExtKeyUsageSyntax ::= SEQUENCE SIZE (1..MAX) OF KeyPurposeId
bool Certificate::extendedKeyUsage(std::vector<std::string>* purposes) const {
  const Extension* e = extension("2.5.29.37");
  if (!e || !purposes) return false;
  Parser outer{Input(e->value)};
  Parser seq;
  if (!outer.ReadSequence(&seq) || outer.HasMore()) return false;
  std::vector<std::string> out;
  while (seq.HasMore()) {
    Input oid;
    if (!seq.ReadOid(&oid)) return false;
    out.push_back(pki::OidText(oid));
  }
  *purposes = std::move(out);
  return true;
}

bool Certificate::hasExtendedKeyUsage(const char* purpose) const {
  std::vector<std::string> purposes;
  if (!purpose || !extendedKeyUsage(&purposes)) return false;
  for (const auto& p : purposes) {
    if (p == purpose) return true;
  }
  return false;
}

// BasicConstraints ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE,
//   pathLenConstraint INTEGER (0..MAX) OPTIONAL }
bool Certificate::basicConstraints(bool* ca, int* pathLength) const {
  const Extension* e = extension("2.5.29.19");
  if (!e || !ca || !pathLength) return false;
  Parser outer{Input(e->value)};
  Parser seq;
  if (!outer.ReadSequence(&seq) || outer.HasMore()) return false;
  Input v;
  bool present = false;
  *ca = false;
  *pathLength = -1;
  if (!seq.ReadOptional(der::kBoolean, &v, &present)) return false;
  if (present) {
    if (v.size() != 1) return false;
    *ca = v[0] != 0;
  }
  if (seq.HasMore()) {
    uint64_t n = 0;
    if (!seq.ReadUint64(&n) || n > 0x7FFFFFFF) return false;
    *pathLength = static_cast<int>(n);
  }
  return !seq.HasMore();
}

// CRLDistributionPoints ::= SEQUENCE SIZE (1..MAX) OF DistributionPoint
// DistributionPoint ::= SEQUENCE { distributionPoint [0] DistributionPointName OPTIONAL,
//   reasons [1] ReasonFlags OPTIONAL, cRLIssuer [2] GeneralNames OPTIONAL }
bool Certificate::crlDistributionPoints(std::vector<DistributionPoint>* out) const {
  const Extension* e = extension("2.5.29.31");
  if (!e || !out) return false;
  Parser outer{Input(e->value)};
  Parser seq;
  if (!outer.ReadSequence(&seq) || outer.HasMore() || !seq.HasMore()) return false;
  std::vector<DistributionPoint> points;
  while (seq.HasMore()) {
    Parser dp;
    if (!seq.ReadSequence(&dp)) return false;
    DistributionPoint point;
    der::Tag tag;
    Input value, whole;
    if (dp.HasMore() && dp.PeekTag(&tag) && tag == der::ContextSpecificConstructed(0)) {
      // [0] EXPLICIT around the DistributionPointName CHOICE.
      if (!dp.ReadElement(&tag, &value, &whole)) return false;
      Parser inner(value);
      Input choice;
      if (!inner.ReadRawTLV(&choice) || inner.HasMore()) return false;
      if (!point.name.decode(choice.data(), choice.size())) return false;
      point.hasName = true;
    }
    bool present = false;
    if (!dp.ReadOptional(der::ContextSpecific(1), &value, &present)) return false;
    if (present) {
      // ReasonFlags ::= BIT STRING, implicitly tagged: the unused-bits octet
      // first, at most 7, and 0 when no octet of bits follows.
      if (value.empty() || value[0] > 7 || (value.size() == 1 && value[0] != 0)) return false;
      point.hasReasons = true;
      for (size_t i = 1; i < value.size() && i < 3; ++i) {
        for (int b = 0; b < 8; ++b) {
          if (value[i] & (0x80 >> b)) point.reasons |= 1u << ((i - 1) * 8 + b);
        }
      }
    }
    if (!dp.ReadOptional(der::ContextSpecificConstructed(2), &value, &present)) return false;
    if (present && !decodeGeneralNames(value.data(), value.size(), &point.crlIssuer)) return false;
    if (dp.HasMore()) return false;
    points.push_back(std::move(point));
  }
  *out = std::move(points);
  return true;
}

// AuthorityInfoAccessSyntax ::= SEQUENCE SIZE (1..MAX) OF AccessDescription
// AccessDescription ::= SEQUENCE { accessMethod OID, accessLocation GeneralName }
bool Certificate::authorityInfoAccess(const char* method, std::vector<std::string>* uris) const {
  const Extension* e = extension("1.3.6.1.5.5.7.1.1");
  if (!e || !method || !uris) return false;
  const der::Oid wanted(method);
  Parser outer{Input(e->value)};
  Parser seq;
  if (!outer.ReadSequence(&seq) || outer.HasMore()) return false;
  std::vector<std::string> found;
  while (seq.HasMore()) {
    Parser ad;
    Input oid;
    if (!seq.ReadSequence(&ad) || !ad.ReadOid(&oid)) return false;
    der::Tag tag;
    Input value;
    if (!ad.ReadTagAndValue(&tag, &value) || ad.HasMore()) return false;
    if (wanted == oid && tag == der::ContextSpecific(GeneralName::kUniformResourceIdentifier)) {
      found.emplace_back(value.AsStringView());
    }
  }
  *uris = std::move(found);
  return true;
}

bool Certificate::operator==(const Certificate& other) const {
  if (!impl_ || !other.impl_) return !impl_ && !other.impl_;
  return impl_->src.bytes == other.impl_->src.bytes;
}
