#include "quillon32/ocsp_response.h"

#include "pki/der.h"
#include "pki/x509_common.h"

using quillon::der::Input;
using quillon::der::Parser;
namespace der = quillon::der;
namespace pki = quillon::pki;

namespace {

using pki::EmptyName;
using pki::NoExtensions;
using pki::NoTime;

const std::vector<OCSPSingleResponse>& NoResponses() {
  static const std::vector<OCSPSingleResponse> none;
  return none;
}
const std::vector<Certificate>& NoCertificates() {
  static const std::vector<Certificate> none;
  return none;
}

// Reads an optional "[n] EXPLICIT Extensions" field.
bool ReadOptionalExtensions(Parser* p, uint32_t tag_number, std::vector<Extension>* out) {
  Parser explicit_tag;
  bool present = false;
  out->clear();
  if (!p->ReadOptionalConstructed(der::ContextSpecificConstructed(tag_number), &explicit_tag,
                                  &present))
    return false;
  if (!present) return true;
  Input seq;
  return explicit_tag.Read(der::kSequence, &seq) && !explicit_tag.HasMore() &&
         pki::ParseExtensions(seq, out);
}

// CertID ::= SEQUENCE { hashAlgorithm AlgorithmIdentifier,
//   issuerNameHash OCTET STRING, -- hash of the issuer's DN
//   issuerKeyHash OCTET STRING,  -- hash of the issuer's public key
//   serialNumber CertificateSerialNumber }
bool ParseCertId(Parser* p, OCSPCertID* out) {
  Parser seq;
  Input alg, oid, name_hash, key_hash, serial;
  if (!p->ReadSequence(&seq) || !pki::ReadAlgorithmIdentifier(&seq, &alg, &oid) ||
      !seq.Read(der::kOctetString, &name_hash) || !seq.Read(der::kOctetString, &key_hash) ||
      !pki::ReadSerial(&seq, &serial) || seq.HasMore())
    return false;
  out->hashAlgorithm = alg.ToVector();
  out->hashAlgorithmOID = pki::OidText(oid);
  out->issuerNameHash = name_hash.ToVector();
  out->issuerKeyHash = key_hash.ToVector();
  return out->serialNumber.fromDerContent(serial.data(), serial.size());
}

// CRLReason ::= ENUMERATED { unspecified (0), keyCompromise (1),
//   cACompromise (2), affiliationChanged (3), superseded (4),
//   cessationOfOperation (5), certificateHold (6), -- value 7 is not used
//   removeFromCRL (8), privilegeWithdrawn (9), aACompromise (10) }
bool ReadReason(Parser* p, int* out) {
  // A value outside CRLReason (7 is unused) is read as no reason: the
  // certificate is still revoked, as a CRL entry with such a reason is.
  uint64_t v = 0;
  if (!p->ReadEnumerated(&v)) return false;
  *out = v <= 10 && v != 7 ? static_cast<int>(v) : -1;
  return true;
}

// CertStatus ::= CHOICE { good [0] IMPLICIT NULL,
//   revoked [1] IMPLICIT RevokedInfo, unknown [2] IMPLICIT UnknownInfo }
// RevokedInfo ::= SEQUENCE { revocationTime GeneralizedTime,
//   revocationReason [0] EXPLICIT CRLReason OPTIONAL }
// UnknownInfo ::= NULL
bool ParseCertStatus(Parser* p, OCSPSingleResponse* out) {
  der::Tag tag;
  Input value;
  if (!p->ReadTagAndValue(&tag, &value)) return false;
  if (tag == der::ContextSpecific(0) || tag == der::ContextSpecific(2)) {
    if (!value.empty()) return false;
    out->certStatus = tag == der::ContextSpecific(0) ? OCSPSingleResponse::kGood
                                                     : OCSPSingleResponse::kUnknown;
    return true;
  }
  if (tag != der::ContextSpecificConstructed(1)) return false;
  out->certStatus = OCSPSingleResponse::kRevoked;
  Parser info(value);
  if (!pki::ReadGeneralizedTime(&info, &out->revocationTime)) return false;
  Parser reason;
  bool present = false;
  if (!info.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &reason, &present))
    return false;
  if (present && (!ReadReason(&reason, &out->revocationReason) || reason.HasMore())) return false;
  return !info.HasMore();
}

// SingleResponse ::= SEQUENCE { certID CertID, certStatus CertStatus,
//   thisUpdate GeneralizedTime,
//   nextUpdate [0] EXPLICIT GeneralizedTime OPTIONAL,
//   singleExtensions [1] EXPLICIT Extensions OPTIONAL }
bool ParseSingleResponse(Parser* p, OCSPSingleResponse* out) {
  Parser seq;
  if (!p->ReadSequence(&seq) || !ParseCertId(&seq, &out->certID) || !ParseCertStatus(&seq, out) ||
      !pki::ReadGeneralizedTime(&seq, &out->thisUpdate))
    return false;
  Parser next;
  if (!seq.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &next, &out->hasNextUpdate))
    return false;
  if (out->hasNextUpdate &&
      (!pki::ReadGeneralizedTime(&next, &out->nextUpdate) || next.HasMore()))
    return false;
  return ReadOptionalExtensions(&seq, 1, &out->singleExtensions) && !seq.HasMore();
}

}  // namespace

const Extension* OCSPSingleResponse::extension(const char* oid) const {
  return pki::FindExtension(singleExtensions, oid);
}

// ---------------------------------------------------------------------------
// BasicOCSPResponse

struct BasicOCSPResponse::Impl {
  pki::DerSource src;
  // The whole input as received, kept only when it was not DER: the signed
  // tbsResponseData and the included certificates are taken from it.
  std::vector<uint8_t> received;

  // Views into src.bytes (tbs into |received| when that is kept).
  Input tbs, sig_alg, sig_oid, sig_value, responder_name_raw, responder_key_hash;
  ResponderIDType responder_type = kNone;
  Name responder_name;
  X500Time produced_at;
  std::vector<OCSPSingleResponse> responses;
  std::vector<Extension> extensions;
  std::vector<Certificate> certs;

  // BasicOCSPResponse ::= SEQUENCE { tbsResponseData ResponseData,
  //   signatureAlgorithm AlgorithmIdentifier, signature BIT STRING,
  //   certs [0] EXPLICIT SEQUENCE OF Certificate OPTIONAL }
  bool Parse() {
    Parser outer{Input(src.bytes)};
    Parser basic;
    if (!outer.ReadSequence(&basic) || outer.HasMore()) return false;
    der::Tag tag;
    Input tbs_value;
    if (!basic.PeekTag(&tag) || tag != der::kSequence ||
        !basic.ReadElement(&tag, &tbs_value, &tbs))
      return false;
    uint8_t unused = 0;
    if (!pki::ReadAlgorithmIdentifier(&basic, &sig_alg, &sig_oid) ||
        !basic.ReadBitString(&sig_value, &unused) || unused != 0)
      return false;
    std::vector<Input> cert_tlvs;
    if (!ReadCertificates(&basic, &cert_tlvs) || basic.HasMore()) return false;
    if (!received.empty() && !TakeReceived(&cert_tlvs)) return false;
    certs.clear();
    certs.reserve(cert_tlvs.size());
    for (const Input& tlv : cert_tlvs) {
      Certificate cert;
      if (!cert.decode(tlv.data(), tlv.size())) return false;
      certs.push_back(std::move(cert));
    }
    return ParseResponseData(tbs_value);
  }

  // certs [0] EXPLICIT SEQUENCE OF Certificate OPTIONAL
  static bool ReadCertificates(Parser* p, std::vector<Input>* out) {
    out->clear();
    Parser explicit_tag, list;
    bool present = false;
    if (!p->ReadOptionalConstructed(der::ContextSpecificConstructed(0), &explicit_tag, &present))
      return false;
    if (!present) return true;
    if (!explicit_tag.ReadSequence(&list) || explicit_tag.HasMore()) return false;
    while (list.HasMore()) {
      Input tlv;
      if (!list.ReadRawTLV(&tlv)) return false;
      out->push_back(tlv);
    }
    return true;
  }

  // For a BER input: the signed bytes and the certificates as they arrived
  // (a certificate checks its own signature over its own received bytes).
  bool TakeReceived(std::vector<Input>* cert_tlvs) {
    Parser outer(Input(received), der::Mode::kBer);
    Parser basic;
    Input alg, bits;
    std::vector<Input> received_certs;
    if (!outer.ReadSequence(&basic) || !basic.ReadRawTLV(&tbs) || !basic.ReadRawTLV(&alg) ||
        !basic.ReadRawTLV(&bits) || !ReadCertificates(&basic, &received_certs) ||
        received_certs.size() != cert_tlvs->size())
      return false;
    *cert_tlvs = std::move(received_certs);
    return true;
  }

  // ResponseData ::= SEQUENCE { version [0] EXPLICIT Version DEFAULT v1,
  //   responderID ResponderID, producedAt GeneralizedTime,
  //   responses SEQUENCE OF SingleResponse,
  //   responseExtensions [1] EXPLICIT Extensions OPTIONAL }
  // ResponderID ::= CHOICE { byName [1] Name, byKey [2] KeyHash }
  // KeyHash ::= OCTET STRING -- SHA-1 hash of responder's public key
  bool ParseResponseData(Input content) {
    Parser p(content);
    Parser explicit_version;
    bool present = false;
    if (!p.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &explicit_version, &present))
      return false;
    if (present) {
      // v1 is the only version RFC 6960 defines; DER leaves it out, but
      // responders that write it explicitly are common.
      uint64_t v = 0;
      if (!explicit_version.ReadUint64(&v) || explicit_version.HasMore() || v != 0) return false;
    }
    der::Tag tag;
    Input value;
    if (!p.ReadTagAndValue(&tag, &value)) return false;
    Parser choice(value);
    if (tag == der::ContextSpecificConstructed(1)) {
      if (!choice.ReadRawTLV(&responder_name_raw) || choice.HasMore() ||
          !responder_name.decode(responder_name_raw.data(), responder_name_raw.size()))
        return false;
      responder_type = kByName;
    } else if (tag == der::ContextSpecificConstructed(2)) {
      if (!choice.Read(der::kOctetString, &responder_key_hash) || choice.HasMore()) return false;
      responder_type = kByKey;
    } else {
      return false;
    }
    if (!pki::ReadGeneralizedTime(&p, &produced_at)) return false;
    Parser list;
    if (!p.ReadSequence(&list)) return false;
    responses.clear();
    while (list.HasMore()) {
      OCSPSingleResponse single;
      if (!ParseSingleResponse(&list, &single)) return false;
      responses.push_back(std::move(single));
    }
    return ReadOptionalExtensions(&p, 1, &extensions) && !p.HasMore();
  }
};

BasicOCSPResponse::BasicOCSPResponse() = default;
BasicOCSPResponse::~BasicOCSPResponse() = default;
BasicOCSPResponse::BasicOCSPResponse(BasicOCSPResponse&&) noexcept = default;
BasicOCSPResponse& BasicOCSPResponse::operator=(BasicOCSPResponse&&) noexcept = default;

BasicOCSPResponse::BasicOCSPResponse(const BasicOCSPResponse& other) {
  if (other.impl_) {
    auto copy = std::make_unique<Impl>();
    copy->src = other.impl_->src;
    copy->received = other.impl_->received;
    if (copy->Parse()) impl_ = std::move(copy);
  }
}

BasicOCSPResponse& BasicOCSPResponse::operator=(const BasicOCSPResponse& other) {
  if (this != &other) {
    BasicOCSPResponse copy(other);
    impl_ = std::move(copy.impl_);
  }
  return *this;
}

bool BasicOCSPResponse::decode(const unsigned char* bytes, size_t length) {
  impl_.reset();
  if (!bytes || length == 0) return false;
  auto impl = std::make_unique<Impl>();
  const Input input(bytes, length);
  if (!pki::MakeDerSource(input, &impl->src)) return false;
  if (!impl->src.was_strict) impl->received = input.ToVector();
  if (!impl->Parse()) return false;
  impl_ = std::move(impl);
  return true;
}

bool BasicOCSPResponse::isDecoded() const { return impl_ != nullptr; }

std::vector<unsigned char> BasicOCSPResponse::encode() const {
  if (!impl_) return {};
  return impl_->src.bytes;
}

ByteView BasicOCSPResponse::der() const {
  if (!impl_) return {};
  return ByteView{impl_->src.bytes.data(), impl_->src.bytes.size()};
}

bool BasicOCSPResponse::isStrictDER() const { return impl_ && impl_->src.was_strict; }

ByteView BasicOCSPResponse::tbsResponseData() const {
  return impl_ ? pki::ToView(impl_->tbs) : ByteView{};
}

int BasicOCSPResponse::version() const { return impl_ ? 1 : 0; }

BasicOCSPResponse::ResponderIDType BasicOCSPResponse::responderIDType() const {
  return impl_ ? impl_->responder_type : kNone;
}

const Name& BasicOCSPResponse::responderName() const {
  return impl_ ? impl_->responder_name : EmptyName();
}

ByteView BasicOCSPResponse::responderNameBytes() const {
  return impl_ ? pki::ToView(impl_->responder_name_raw) : ByteView{};
}

ByteView BasicOCSPResponse::responderKeyHash() const {
  return impl_ ? pki::ToView(impl_->responder_key_hash) : ByteView{};
}

const X500Time& BasicOCSPResponse::producedAt() const {
  return impl_ ? impl_->produced_at : NoTime();
}

const std::vector<OCSPSingleResponse>& BasicOCSPResponse::responses() const {
  return impl_ ? impl_->responses : NoResponses();
}

const std::vector<Extension>& BasicOCSPResponse::responseExtensions() const {
  return impl_ ? impl_->extensions : NoExtensions();
}

const Extension* BasicOCSPResponse::responseExtension(const char* oid) const {
  return impl_ ? pki::FindExtension(impl_->extensions, oid) : nullptr;
}

ByteView BasicOCSPResponse::signatureAlgorithm() const {
  return impl_ ? pki::ToView(impl_->sig_alg) : ByteView{};
}

std::string BasicOCSPResponse::signatureAlgorithmOID() const {
  return impl_ ? pki::OidText(impl_->sig_oid) : std::string();
}

ByteView BasicOCSPResponse::signatureValue() const {
  return impl_ ? pki::ToView(impl_->sig_value) : ByteView{};
}

const std::vector<Certificate>& BasicOCSPResponse::certs() const {
  return impl_ ? impl_->certs : NoCertificates();
}

bool BasicOCSPResponse::operator==(const BasicOCSPResponse& other) const {
  if (!impl_ || !other.impl_) return !impl_ && !other.impl_;
  return impl_->src.bytes == other.impl_->src.bytes;
}

// ---------------------------------------------------------------------------
// OCSPResponse

struct OCSPResponse::Impl {
  pki::DerSource src;

  // Views into src.bytes, set by Parse().
  int status = kSuccessful;
  bool has_bytes = false;
  Input type_oid, response;

  // OCSPResponse ::= SEQUENCE { responseStatus OCSPResponseStatus,
  //   responseBytes [0] EXPLICIT ResponseBytes OPTIONAL }
  // OCSPResponseStatus ::= ENUMERATED { successful (0), malformedRequest (1),
  //   internalError (2), tryLater (3), -- (4) is not used
  //   sigRequired (5), unauthorized (6) }
  // ResponseBytes ::= SEQUENCE { responseType OBJECT IDENTIFIER,
  //   response OCTET STRING }
  bool Parse() {
    Parser outer{Input(src.bytes)};
    Parser seq;
    uint64_t v = 0;
    if (!outer.ReadSequence(&seq) || outer.HasMore() || !seq.ReadEnumerated(&v) || v > 6 ||
        v == 4)
      return false;
    status = static_cast<int>(v);
    Parser explicit_tag, bytes;
    if (!seq.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &explicit_tag,
                                     &has_bytes))
      return false;
    if (has_bytes && (!explicit_tag.ReadSequence(&bytes) || explicit_tag.HasMore() ||
                      !bytes.ReadOid(&type_oid) || !bytes.Read(der::kOctetString, &response) ||
                      bytes.HasMore()))
      return false;
    return !seq.HasMore();
  }
};

OCSPResponse::OCSPResponse() = default;
OCSPResponse::~OCSPResponse() = default;
OCSPResponse::OCSPResponse(OCSPResponse&&) noexcept = default;
OCSPResponse& OCSPResponse::operator=(OCSPResponse&&) noexcept = default;

OCSPResponse::OCSPResponse(const OCSPResponse& other) {
  if (other.impl_) {
    auto copy = std::make_unique<Impl>();
    copy->src = other.impl_->src;
    if (copy->Parse()) impl_ = std::move(copy);
  }
}

OCSPResponse& OCSPResponse::operator=(const OCSPResponse& other) {
  if (this != &other) {
    OCSPResponse copy(other);
    impl_ = std::move(copy.impl_);
  }
  return *this;
}

// The response octets are opaque here: rewriting a BER envelope to DER keeps
// them byte for byte (a constructed OCTET STRING is joined, not re-encoded),
// so a basic response inside still verifies over the bytes its responder
// signed.
bool OCSPResponse::decode(const unsigned char* bytes, size_t length) {
  impl_.reset();
  if (!bytes || length == 0) return false;
  auto impl = std::make_unique<Impl>();
  if (!pki::MakeDerSource(Input(bytes, length), &impl->src) || !impl->Parse()) return false;
  impl_ = std::move(impl);
  return true;
}

// The basic response is carried as it was received (its DER for a DER
// input), so that its signature still verifies after the wrapping.
bool OCSPResponse::fromBasicResponse(const BasicOCSPResponse& basic) {
  impl_.reset();
  if (!basic.impl_) return false;
  const std::vector<uint8_t>& inner =
      basic.impl_->received.empty() ? basic.impl_->src.bytes : basic.impl_->received;
  der::Writer w;
  static const uint8_t kSuccessfulContent[] = {0x00};
  w.Open(der::kSequence);
  w.AddTLV(der::kEnumerated, Input(kSuccessfulContent, sizeof kSuccessfulContent));
  w.Open(der::ContextSpecificConstructed(0));
  w.Open(der::kSequence);
  if (!w.AddOid(kBasicResponseType)) return false;
  w.AddTLV(der::kOctetString, Input(inner));
  w.Close();
  w.Close();
  w.Close();
  const std::vector<uint8_t> bytes = w.Take();
  return decode(bytes.data(), bytes.size());
}

bool OCSPResponse::isDecoded() const { return impl_ != nullptr; }

std::vector<unsigned char> OCSPResponse::encode() const {
  if (!impl_) return {};
  return impl_->src.bytes;
}

ByteView OCSPResponse::der() const {
  if (!impl_) return {};
  return ByteView{impl_->src.bytes.data(), impl_->src.bytes.size()};
}

bool OCSPResponse::isStrictDER() const { return impl_ && impl_->src.was_strict; }

int OCSPResponse::responseStatus() const { return impl_ ? impl_->status : -1; }

bool OCSPResponse::hasResponseBytes() const { return impl_ && impl_->has_bytes; }

std::string OCSPResponse::responseType() const {
  return hasResponseBytes() ? pki::OidText(impl_->type_oid) : std::string();
}

ByteView OCSPResponse::response() const {
  return hasResponseBytes() ? pki::ToView(impl_->response) : ByteView{};
}

bool OCSPResponse::basicResponse(BasicOCSPResponse* out) const {
  if (!out) return false;
  static const der::Oid kBasic(kBasicResponseType);
  if (!hasResponseBytes() || !(kBasic == impl_->type_oid)) {
    *out = BasicOCSPResponse();
    return false;
  }
  return out->decode(impl_->response.data(), impl_->response.size());
}

bool OCSPResponse::operator==(const OCSPResponse& other) const {
  if (!impl_ || !other.impl_) return !impl_ && !other.impl_;
  return impl_->src.bytes == other.impl_->src.bytes;
}
