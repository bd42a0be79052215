#include "quillon32/attribute_certificate.h"

#include "pki/der.h"
#include "pki/x509_common.h"

using quillon::der::Input;
using quillon::der::Parser;
namespace der = quillon::der;
namespace pki = quillon::pki;

struct AttributeCertificate::Impl {
  pki::DerSource src;
  // The signed element as received, kept only when the input was not DER.
  std::vector<uint8_t> received_acinfo;

  // Views into src.bytes, set by Parse().
  Input acinfo, holder, issuer_field, issuer_raw, attributes, sig_alg, sig_value;
  Name issuer;
  BigInteger serial;
  X500Time not_before, not_after;
  std::vector<Extension> extensions;

  // AttributeCertificate ::= SEQUENCE { acinfo AttributeCertificateInfo,
  //   signatureAlgorithm AlgorithmIdentifier, signatureValue BIT STRING }
  bool Parse() {
    Parser outer{Input(src.bytes)};
    Parser ac;
    if (!outer.ReadSequence(&ac) || outer.HasMore()) return false;
    der::Tag tag;
    Input info;
    if (!ac.PeekTag(&tag) || tag != der::kSequence || !ac.ReadElement(&tag, &info, &acinfo))
      return false;
    Input sig_oid;
    uint8_t unused = 0;
    if (!pki::ReadAlgorithmIdentifier(&ac, &sig_alg, &sig_oid) ||
        !ac.ReadBitString(&sig_value, &unused) || unused != 0 || ac.HasMore())
      return false;
    return ParseInfo(info);
  }

  // AttributeCertificateInfo ::= SEQUENCE { version AttCertVersion (v2),
  //   holder Holder, issuer AttCertIssuer, signature AlgorithmIdentifier,
  //   serialNumber CertificateSerialNumber,
  //   attrCertValidityPeriod AttCertValidityPeriod, attributes SEQUENCE OF Attribute,
  //   issuerUniqueID UniqueIdentifier OPTIONAL, extensions Extensions OPTIONAL }
  bool ParseInfo(Input content) {
    Parser p(content);
    uint64_t version = 0;
    if (!p.ReadUint64(&version) || version != 1) return false;  // v2 only
    if (!p.PeekTag(&tag_) || tag_ != der::kSequence || !p.ReadRawTLV(&holder)) return false;
    if (!ParseIssuer(&p)) return false;
    Input alg, alg_oid;
    if (!pki::ReadAlgorithmIdentifier(&p, &alg, &alg_oid)) return false;
    Input serial_content;
    if (!pki::ReadSerial(&p, &serial_content) ||
        !serial.fromDerContent(serial_content.data(), serial_content.size()))
      return false;
    // AttCertValidityPeriod ::= SEQUENCE { notBeforeTime GeneralizedTime,
    //   notAfterTime GeneralizedTime }
    Parser validity;
    if (!p.ReadSequence(&validity) || !pki::ReadGeneralizedTime(&validity, &not_before) ||
        !pki::ReadGeneralizedTime(&validity, &not_after) || validity.HasMore())
      return false;
    if (!p.PeekTag(&tag_) || tag_ != der::kSequence || !p.ReadRawTLV(&attributes)) return false;
    bool present = false;
    if (!p.SkipOptional(der::kBitString, &present)) return false;
    extensions.clear();
    Input exts;
    if (!p.ReadOptional(der::kSequence, &exts, &present)) return false;
    if (present && !pki::ParseExtensions(exts, &extensions)) return false;
    return !p.HasMore();
  }

  // AttCertIssuer ::= CHOICE { v1Form GeneralNames, v2Form [0] V2Form }
  // V2Form ::= SEQUENCE { issuerName GeneralNames OPTIONAL,
  //   baseCertificateID [0] IssuerSerial OPTIONAL,
  //   objectDigestInfo [1] ObjectDigestInfo OPTIONAL }
  // GeneralNames ::= SEQUENCE SIZE (1..MAX) OF GeneralName
  // The issuer is the first directoryName of the issuer names; an issuer
  // named only by certificate reference has none. An empty list of names is
  // malformed, not an issuer without a name.
  bool ParseIssuer(Parser* p) {
    Input value;
    if (!p->PeekTag(&tag_)) return false;
    if (tag_ != der::kSequence && tag_ != der::ContextSpecificConstructed(0)) return false;
    if (!p->ReadElement(&tag_, &value, &issuer_field)) return false;
    Input names;
    bool has_names = true;
    if (tag_ == der::kSequence) {
      names = value;
    } else {
      Parser v2(value);
      if (!v2.ReadOptional(der::kSequence, &names, &has_names)) return false;
      bool present = false;
      if (!v2.SkipOptional(der::ContextSpecificConstructed(0), &present) ||
          !v2.SkipOptional(der::ContextSpecificConstructed(1), &present) || v2.HasMore())
        return false;
    }
    issuer_raw = Input();
    if (!has_names) return true;
    if (names.empty()) return false;
    Parser gn(names);
    while (gn.HasMore()) {
      Input name_value;
      if (!gn.ReadTagAndValue(&tag_, &name_value)) return false;
      if (tag_ != der::ContextSpecificConstructed(GeneralName::kDirectoryName) ||
          !issuer_raw.empty())
        continue;
      Parser inner(name_value);
      if (!inner.ReadRawTLV(&issuer_raw) || inner.HasMore() ||
          !issuer.decode(issuer_raw.data(), issuer_raw.size()))
        return false;
    }
    return true;
  }

  der::Tag tag_ = 0;
};

AttributeCertificate::AttributeCertificate() = default;
AttributeCertificate::~AttributeCertificate() = default;
AttributeCertificate::AttributeCertificate(AttributeCertificate&&) noexcept = default;
AttributeCertificate& AttributeCertificate::operator=(AttributeCertificate&&) noexcept = default;

AttributeCertificate::AttributeCertificate(const AttributeCertificate& other) {
  if (other.impl_) {
    auto copy = std::make_unique<Impl>();
    copy->src = other.impl_->src;
    copy->received_acinfo = other.impl_->received_acinfo;
    if (copy->Parse()) impl_ = std::move(copy);
  }
}

AttributeCertificate& AttributeCertificate::operator=(const AttributeCertificate& other) {
  if (this != &other) {
    AttributeCertificate copy(other);
    impl_ = std::move(copy.impl_);
  }
  return *this;
}

bool AttributeCertificate::decode(const unsigned char* bytes, size_t length) {
  impl_.reset();
  if (!bytes || length == 0) return false;
  auto impl = std::make_unique<Impl>();
  const Input input(bytes, length);
  if (!pki::MakeDerSource(input, &impl->src)) return false;
  if (!impl->src.was_strict) {
    // Keep the signed element exactly as it arrived.
    Parser outer(input, der::Mode::kBer);
    Parser ac;
    Input acinfo;
    if (!outer.ReadSequence(&ac) || !ac.ReadRawTLV(&acinfo)) return false;
    impl->received_acinfo = acinfo.ToVector();
  }
  if (!impl->Parse()) return false;
  impl_ = std::move(impl);
  return true;
}

bool AttributeCertificate::isDecoded() const { return impl_ != nullptr; }

std::vector<unsigned char> AttributeCertificate::encode() const {
  if (!impl_) return {};
  return impl_->src.bytes;
}

ByteView AttributeCertificate::der() const {
  if (!impl_) return {};
  return ByteView{impl_->src.bytes.data(), impl_->src.bytes.size()};
}

bool AttributeCertificate::isStrictDER() const { return impl_ && impl_->src.was_strict; }

int AttributeCertificate::version() const { return impl_ ? 2 : 0; }
bool AttributeCertificate::hasIssuerName() const { return impl_ && !impl_->issuer_raw.empty(); }
const Name& AttributeCertificate::issuer() const { return impl_ ? impl_->issuer : pki::EmptyName(); }
ByteView AttributeCertificate::issuerBytes() const {
  return impl_ ? pki::ToView(impl_->issuer_raw) : ByteView{};
}
const BigInteger& AttributeCertificate::serialNumber() const {
  return impl_ ? impl_->serial : pki::ZeroInteger();
}
const X500Time& AttributeCertificate::notBefore() const {
  return impl_ ? impl_->not_before : pki::NoTime();
}
const X500Time& AttributeCertificate::notAfter() const {
  return impl_ ? impl_->not_after : pki::NoTime();
}

ByteView AttributeCertificate::acinfo() const {
  if (!impl_) return {};
  if (!impl_->received_acinfo.empty())
    return ByteView{impl_->received_acinfo.data(), impl_->received_acinfo.size()};
  return pki::ToView(impl_->acinfo);
}
ByteView AttributeCertificate::holder() const {
  return impl_ ? pki::ToView(impl_->holder) : ByteView{};
}
ByteView AttributeCertificate::issuerField() const {
  return impl_ ? pki::ToView(impl_->issuer_field) : ByteView{};
}
ByteView AttributeCertificate::attributes() const {
  return impl_ ? pki::ToView(impl_->attributes) : ByteView{};
}
ByteView AttributeCertificate::signatureAlgorithm() const {
  return impl_ ? pki::ToView(impl_->sig_alg) : ByteView{};
}
ByteView AttributeCertificate::signatureValue() const {
  return impl_ ? pki::ToView(impl_->sig_value) : ByteView{};
}

const std::vector<Extension>& AttributeCertificate::extensions() const {
  return impl_ ? impl_->extensions : pki::NoExtensions();
}

const Extension* AttributeCertificate::extension(const char* oid) const {
  return impl_ ? pki::FindExtension(impl_->extensions, oid) : nullptr;
}

bool AttributeCertificate::authorityKeyIdentifier(AuthorityKeyIdentifier* out) const {
  const Extension* e = extension("2.5.29.35");
  return e && out && out->decode(e->value.data(), e->value.size());
}

bool AttributeCertificate::operator==(const AttributeCertificate& other) const {
  if (!impl_ || !other.impl_) return !impl_ && !other.impl_;
  return impl_->src.bytes == other.impl_->src.bytes;
}
