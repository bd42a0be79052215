#include "support/pki_factory.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>

#include "support/der_writer.h"

namespace quillon::testing {
namespace {

[[noreturn]] void Fail(const std::string& what) {
  std::string msg = "pki_factory: " + what;
  char buf[256];
  for (unsigned long e = ERR_get_error(); e != 0; e = ERR_get_error()) {
    ERR_error_string_n(e, buf, sizeof buf);
    msg += "; ";
    msg += buf;
  }
  throw std::runtime_error(msg);
}

using Bytes = std::vector<uint8_t>;

struct BioDeleter { void operator()(BIO* p) const noexcept { BIO_free(p); } };
using BioPtr = std::unique_ptr<BIO, BioDeleter>;
struct Asn1IntegerDeleter { void operator()(ASN1_INTEGER* p) const noexcept { ASN1_INTEGER_free(p); } };
using Asn1IntegerPtr = std::unique_ptr<ASN1_INTEGER, Asn1IntegerDeleter>;
struct Asn1TimeDeleter { void operator()(ASN1_TIME* p) const noexcept { ASN1_TIME_free(p); } };
using Asn1TimePtr = std::unique_ptr<ASN1_TIME, Asn1TimeDeleter>;
struct ExtensionDeleter { void operator()(X509_EXTENSION* p) const noexcept { X509_EXTENSION_free(p); } };
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, ExtensionDeleter>;
struct CertIdDeleter { void operator()(OCSP_CERTID* p) const noexcept { OCSP_CERTID_free(p); } };
using CertIdPtr = std::unique_ptr<OCSP_CERTID, CertIdDeleter>;

std::string BioText(BIO* bio) {
  char* data = nullptr;
  long n = BIO_get_mem_data(bio, &data);
  return std::string(data, static_cast<size_t>(n));
}

// The content octets of a DER TLV (short or long length form).
Bytes ContentOf(const Bytes& tlv) {
  if (tlv.size() < 2) Fail("truncated TLV");
  size_t pos = 1;
  size_t len = tlv[pos++];
  if (len & 0x80) {
    size_t n = len & 0x7F;
    len = 0;
    for (size_t i = 0; i < n; ++i) len = (len << 8) | tlv[pos++];
  }
  if (pos + len > tlv.size()) Fail("truncated TLV");
  return Bytes(tlv.begin() + static_cast<std::ptrdiff_t>(pos),
               tlv.begin() + static_cast<std::ptrdiff_t>(pos + len));
}

// Dotted text of an OID given by name or dotted text.
std::string DottedOid(const std::string& nameOrOid) {
  ASN1_OBJECT* obj = OBJ_txt2obj(nameOrOid.c_str(), 0);
  if (obj == nullptr) Fail("unknown OID or name: " + nameOrOid);
  char buf[128];
  int n = OBJ_obj2txt(buf, sizeof buf, obj, 1);
  ASN1_OBJECT_free(obj);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) Fail("OID text: " + nameOrOid);
  return std::string(buf, static_cast<size_t>(n));
}

Asn1IntegerPtr ToAsn1Integer(const Serial& serial) {
  DerWriter w;
  w.Integer(serial.bytes);
  Bytes der = w.Take();
  const unsigned char* p = der.data();
  Asn1IntegerPtr out(d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(der.size())));
  if (!out) Fail("serial " + Hex(serial.bytes) + " is not a minimal DER INTEGER");
  return out;
}

Asn1TimePtr ToAsn1Time(time_t t, bool forceGeneralized) {
  DerWriter w;
  w.Time(t, forceGeneralized);
  Bytes der = w.Take();
  const unsigned char* p = der.data();
  Asn1TimePtr out(d2i_ASN1_TIME(nullptr, &p, static_cast<long>(der.size())));
  if (!out) Fail("time");
  return out;
}

Serial RandomSerial() {
  Bytes b(16);
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) Fail("RAND_bytes");
  b[0] = static_cast<uint8_t>((b[0] & 0x3F) | 0x40);  // positive, minimal
  return Serial::FromBytes(std::move(b));
}

// --- Names -----------------------------------------------------------------

// UTF-8 to code points; throws on malformed input.
std::vector<uint32_t> DecodeUtf8(const std::string& s) {
  std::vector<uint32_t> out;
  for (size_t i = 0; i < s.size();) {
    auto c = static_cast<uint8_t>(s[i]);
    uint32_t cp;
    size_t n;
    if (c < 0x80) { cp = c; n = 1; }
    else if ((c & 0xE0) == 0xC0) { cp = c & 0x1F; n = 2; }
    else if ((c & 0xF0) == 0xE0) { cp = c & 0x0F; n = 3; }
    else if ((c & 0xF8) == 0xF0) { cp = c & 0x07; n = 4; }
    else Fail("invalid UTF-8 in name value");
    if (i + n > s.size()) Fail("truncated UTF-8 in name value");
    for (size_t k = 1; k < n; ++k) {
      auto cc = static_cast<uint8_t>(s[i + k]);
      if ((cc & 0xC0) != 0x80) Fail("invalid UTF-8 in name value");
      cp = (cp << 6) | (cc & 0x3F);
    }
    out.push_back(cp);
    i += n;
  }
  return out;
}

void WriteAttrValue(DerWriter& w, const std::string& dottedType, const Attr& a) {
  StrType t = a.strType;
  if (t == StrType::kDefault) {
    if (dottedType == "2.5.4.6" || dottedType == "2.5.4.5" || dottedType == "2.5.4.46")
      t = StrType::kPrintable;
    else if (dottedType == "1.2.840.113549.1.9.1" || dottedType == "0.9.2342.19200300.100.1.25")
      t = StrType::kIa5;
    else
      t = StrType::kUtf8;
  }
  switch (t) {
    case StrType::kDefault:
    case StrType::kUtf8: w.Tlv(der::kUtf8String, a.value); break;
    case StrType::kPrintable: w.Tlv(der::kPrintableString, a.value); break;
    case StrType::kIa5: w.Tlv(der::kIa5String, a.value); break;
    case StrType::kT61: w.Tlv(der::kT61String, a.value); break;
    case StrType::kBmp: {
      Bytes v;
      for (uint32_t cp : DecodeUtf8(a.value)) {
        if (cp > 0xFFFF) Fail("code point outside the BMP in a BMPString");
        v.push_back(static_cast<uint8_t>(cp >> 8));
        v.push_back(static_cast<uint8_t>(cp));
      }
      w.Tlv(der::kBmpString, v);
      break;
    }
    case StrType::kUniversal: {
      Bytes v;
      for (uint32_t cp : DecodeUtf8(a.value))
        for (int sh = 24; sh >= 0; sh -= 8) v.push_back(static_cast<uint8_t>(cp >> sh));
      w.Tlv(der::kUniversalString, v);
      break;
    }
  }
}

// --- Extension values --------------------------------------------------------

void WriteExtension(DerWriter& w, const std::string& dottedOid, bool critical, const Bytes& value) {
  w.Begin(der::kSequence);
  w.Oid(dottedOid);
  if (critical) w.Boolean(true);
  w.OctetString(value);
  w.End();
}

void WriteGeneralNameUri(DerWriter& w, const std::string& uri) { w.Tlv(der::Ctx(6), uri); }

void WriteGeneralNameDirName(DerWriter& w, const NameSpec& name) {
  w.Begin(der::CtxCons(4));  // directoryName [4] Name (explicit: Name is a CHOICE)
  w.Raw(NameDer(name));
  w.End();
}

Bytes KeyUsageValue(const KeyUsageSpec& ku) {
  DerWriter w;
  w.NamedBits(ku.bits);
  return w.Take();
}

// BasicConstraints ::= SEQUENCE { cA BOOLEAN DEFAULT FALSE,
//                                 pathLenConstraint INTEGER (0..MAX) OPTIONAL }
Bytes BasicConstraintsValue(const BasicConstraintsSpec& bc) {
  DerWriter w;
  w.Begin(der::kSequence);
  if (bc.ca) w.Boolean(true);
  if (bc.pathLen) w.Integer(*bc.pathLen);
  w.End();
  return w.Take();
}

Bytes OctetStringValue(const Bytes& b) {
  DerWriter w;
  w.OctetString(b);
  return w.Take();
}

// AuthorityKeyIdentifier ::= SEQUENCE {
//   keyIdentifier             [0] KeyIdentifier           OPTIONAL,
//   authorityCertIssuer       [1] GeneralNames            OPTIONAL,
//   authorityCertSerialNumber [2] CertificateSerialNumber OPTIONAL }
Bytes AkiValue(const Bytes* keyId, const Bytes* issuerNameDer, const Serial* serial) {
  DerWriter w;
  w.Begin(der::kSequence);
  if (keyId) w.Tlv(der::Ctx(0), *keyId);
  if (issuerNameDer) {
    w.Begin(der::CtxCons(1));
    w.Begin(der::CtxCons(4));
    w.Raw(*issuerNameDer);
    w.End();
    w.End();
  }
  if (serial) w.Tlv(der::Ctx(2), serial->bytes);
  w.End();
  return w.Take();
}

// DistributionPoint ::= SEQUENCE {
//   distributionPoint [0] DistributionPointName OPTIONAL,
//   reasons           [1] ReasonFlags OPTIONAL,
//   cRLIssuer         [2] GeneralNames OPTIONAL }
// DistributionPointName ::= CHOICE {
//   fullName                [0] GeneralNames,
//   nameRelativeToCRLIssuer [1] RelativeDistinguishedName }
Bytes CrlDpValue(const std::vector<DistPointSpec>& points) {
  DerWriter w;
  w.Begin(der::kSequence);
  for (const auto& dp : points) {
    w.Begin(der::kSequence);
    if (dp.relativeName) {
      w.Begin(der::CtxCons(0));
      NameSpec one{*dp.relativeName};
      Bytes nameDer = NameDer(one);
      // nameDer is SEQUENCE { SET {...} }; [1] IMPLICIT replaces the SET tag.
      Bytes setTlv = ContentOf(nameDer);
      Bytes setContent = ContentOf(setTlv);
      w.Tlv(der::CtxCons(1), setContent);
      w.End();
    } else if (!dp.uris.empty() || !dp.directoryNames.empty()) {
      w.Begin(der::CtxCons(0));
      w.Begin(der::CtxCons(0));
      for (const auto& uri : dp.uris) WriteGeneralNameUri(w, uri);
      for (const auto& dn : dp.directoryNames) WriteGeneralNameDirName(w, dn);
      w.End();
      w.End();
    }
    if (!dp.reasons.empty()) w.NamedBits(dp.reasons, der::Ctx(1));
    if (!dp.crlIssuer.empty()) {
      w.Begin(der::CtxCons(2));
      for (const auto& dn : dp.crlIssuer) WriteGeneralNameDirName(w, dn);
      w.End();
    }
    w.End();
  }
  w.End();
  return w.Take();
}

// AuthorityInfoAccessSyntax ::= SEQUENCE OF AccessDescription
// AccessDescription ::= SEQUENCE { accessMethod OID, accessLocation GeneralName }
Bytes AiaValue(const std::vector<std::string>& ocsp, const std::vector<std::string>& caIssuers) {
  DerWriter w;
  w.Begin(der::kSequence);
  for (const auto& uri : ocsp) {
    w.Begin(der::kSequence);
    w.Oid("1.3.6.1.5.5.7.48.1");
    WriteGeneralNameUri(w, uri);
    w.End();
  }
  for (const auto& uri : caIssuers) {
    w.Begin(der::kSequence);
    w.Oid("1.3.6.1.5.5.7.48.2");
    WriteGeneralNameUri(w, uri);
    w.End();
  }
  w.End();
  return w.Take();
}

Bytes EkuValue(const std::vector<std::string>& purposes) {
  DerWriter w;
  w.Begin(der::kSequence);
  for (const auto& p : purposes) w.Oid(DottedOid(p));
  w.End();
  return w.Take();
}

// IssuingDistributionPoint ::= SEQUENCE {
//   distributionPoint          [0] DistributionPointName OPTIONAL,
//   onlyContainsUserCerts      [1] BOOLEAN DEFAULT FALSE,
//   onlyContainsCACerts        [2] BOOLEAN DEFAULT FALSE,
//   onlySomeReasons            [3] ReasonFlags OPTIONAL,
//   indirectCRL                [4] BOOLEAN DEFAULT FALSE,
//   onlyContainsAttributeCerts [5] BOOLEAN DEFAULT FALSE }
Bytes IdpValue(const IdpSpec& idp) {
  static const uint8_t kTrue = 0xFF;
  DerWriter w;
  w.Begin(der::kSequence);
  if (!idp.uris.empty()) {
    w.Begin(der::CtxCons(0));
    w.Begin(der::CtxCons(0));
    for (const auto& uri : idp.uris) WriteGeneralNameUri(w, uri);
    w.End();
    w.End();
  }
  if (idp.onlyContainsUserCerts) w.Tlv(der::Ctx(1), std::span<const uint8_t>(&kTrue, 1));
  if (idp.onlyContainsCaCerts) w.Tlv(der::Ctx(2), std::span<const uint8_t>(&kTrue, 1));
  if (!idp.onlySomeReasons.empty()) w.NamedBits(idp.onlySomeReasons, der::Ctx(3));
  if (idp.indirectCrl) w.Tlv(der::Ctx(4), std::span<const uint8_t>(&kTrue, 1));
  if (idp.onlyContainsAttributeCerts) w.Tlv(der::Ctx(5), std::span<const uint8_t>(&kTrue, 1));
  w.End();
  return w.Take();
}

Bytes GeneralizedTimeValue(time_t t) {
  DerWriter w;
  w.GeneralizedTime(t);
  return w.Take();
}

Bytes EnumeratedValue(int v) {
  DerWriter w;
  w.Enumerated(v);
  return w.Take();
}

Bytes IntegerValue(const Serial& s) {
  DerWriter w;
  w.Integer(s.bytes);
  return w.Take();
}

ExtensionPtr MakeExtension(const std::string& oid, bool critical, const Bytes& value) {
  ASN1_OBJECT* obj = OBJ_txt2obj(DottedOid(oid).c_str(), 1);
  ASN1_OCTET_STRING* os = ASN1_OCTET_STRING_new();
  if (obj == nullptr || os == nullptr ||
      !ASN1_OCTET_STRING_set(os, value.data(), static_cast<int>(value.size()))) {
    ASN1_OBJECT_free(obj);
    ASN1_OCTET_STRING_free(os);
    Fail("extension " + oid);
  }
  ExtensionPtr ext(X509_EXTENSION_create_by_OBJ(nullptr, obj, critical ? 1 : 0, os));
  ASN1_OBJECT_free(obj);
  ASN1_OCTET_STRING_free(os);
  if (!ext) Fail("extension " + oid);
  return ext;
}

void AddCertExtension(X509* x, const std::string& oid, bool critical, const Bytes& value) {
  ExtensionPtr ext = MakeExtension(oid, critical, value);
  if (!X509_add_ext(x, ext.get(), -1)) Fail("X509_add_ext " + oid);
}

// The subjectKeyIdentifier of a certificate, or the identifier of its key.
Bytes CertKeyId(const X509* cert) {
  auto* ski = static_cast<ASN1_OCTET_STRING*>(
      X509_get_ext_d2i(cert, NID_subject_key_identifier, nullptr, nullptr));
  if (ski != nullptr) {
    Bytes out(ASN1_STRING_get0_data(ski), ASN1_STRING_get0_data(ski) + ASN1_STRING_length(ski));
    ASN1_OCTET_STRING_free(ski);
    return out;
  }
  const ASN1_BIT_STRING* bits = X509_get0_pubkey_bitstr(cert);
  if (bits == nullptr) Fail("certificate without key");
  Bytes out(SHA_DIGEST_LENGTH);
  SHA1(ASN1_STRING_get0_data(bits), static_cast<size_t>(ASN1_STRING_length(bits)), out.data());
  return out;
}

Bytes NameDerOf(const X509_NAME* name) {
  unsigned char* p = nullptr;
  int n = i2d_X509_NAME(name, &p);
  if (n <= 0) Fail("i2d_X509_NAME");
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

// --- Signing -----------------------------------------------------------------

EvpMdCtxPtr InitSign(const Key& key, Digest digest, bool rsaPss) {
  if (!key) Fail("no signing key");
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pctx = nullptr;
  if (!ctx || EVP_DigestSignInit(ctx.get(), &pctx, DigestMd(digest), nullptr, key.get()) != 1)
    Fail("EVP_DigestSignInit");
  if (rsaPss) {
    if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) Fail("RSA-PSS needs an RSA key");
    if (EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) <= 0 ||
        EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, RSA_PSS_SALTLEN_DIGEST) <= 0 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md(pctx, DigestMd(digest)) <= 0)
      Fail("RSA-PSS parameters");
  }
  return ctx;
}

Bytes AlgorithmIdOf(EVP_MD_CTX* ctx) {
  unsigned char buf[256];
  OSSL_PARAM params[2] = {
      OSSL_PARAM_construct_octet_string(OSSL_SIGNATURE_PARAM_ALGORITHM_ID, buf, sizeof buf),
      OSSL_PARAM_construct_end()};
  if (EVP_PKEY_CTX_get_params(EVP_MD_CTX_get_pkey_ctx(ctx), params) != 1 ||
      !OSSL_PARAM_modified(&params[0]) || params[0].return_size == 0)
    Fail("signature AlgorithmIdentifier");
  return Bytes(buf, buf + params[0].return_size);
}

Bytes SignBytes(EVP_MD_CTX* ctx, const uint8_t* data, size_t n) {
  size_t len = 0;
  if (EVP_DigestSign(ctx, nullptr, &len, data, n) != 1) Fail("EVP_DigestSign");
  Bytes sig(len);
  if (EVP_DigestSign(ctx, sig.data(), &len, data, n) != 1) Fail("EVP_DigestSign");
  sig.resize(len);
  return sig;
}

// Writes SEQUENCE { tbs, algId, BIT STRING sig } where writeTbs writes the
// TBS contents (inside its SEQUENCE) and the TBS is signed in place.
template <typename WriteTbs>
Bytes BuildSigned(EVP_MD_CTX* ctx, const Bytes& algId, size_t reserve, WriteTbs&& writeTbs) {
  DerWriter w;
  w.Reserve(reserve);
  w.Begin(der::kSequence);
  const size_t tbsStart = w.size();
  w.Begin(der::kSequence);
  writeTbs(w);
  w.End();
  Bytes sig = SignBytes(ctx, w.bytes().data() + tbsStart, w.size() - tbsStart);
  w.Raw(algId);
  w.BitString(sig);
  w.End();
  return w.Take();
}

// --- CRL encoding ------------------------------------------------------------

// The parts of a TBSCertList other than the entries.
struct CrlFrame {
  Bytes issuerDer;
  int version = 2;
  time_t thisUpdate = 0;
  std::optional<time_t> nextUpdate;
  bool forceGeneralizedTime = false;
  Bytes extensionsDer;  // Extensions SEQUENCE; empty: no [0]
};

// TBSCertList ::= SEQUENCE {
//   version             Version OPTIONAL,  -- if present, MUST be v2
//   signature           AlgorithmIdentifier,
//   issuer              Name,
//   thisUpdate          Time,
//   nextUpdate          Time OPTIONAL,
//   revokedCertificates SEQUENCE OF SEQUENCE {
//       userCertificate    CertificateSerialNumber,
//       revocationDate     Time,
//       crlEntryExtensions Extensions OPTIONAL } OPTIONAL,
//   crlExtensions       [0] EXPLICIT Extensions OPTIONAL }
template <typename WriteEntries>
Bytes BuildCrl(const CrlFrame& f, const Key& signKey, Digest digest, bool rsaPss,
               size_t entryCount, size_t reserve, WriteEntries&& writeEntries) {
  EvpMdCtxPtr ctx = InitSign(signKey, digest, rsaPss);
  Bytes algId = AlgorithmIdOf(ctx.get());
  return BuildSigned(ctx.get(), algId, reserve + 1024, [&](DerWriter& w) {
    if (f.version >= 2) w.Integer(f.version - 1);
    w.Raw(algId);
    w.Raw(f.issuerDer);
    w.Time(f.thisUpdate, f.forceGeneralizedTime);
    if (f.nextUpdate) w.Time(*f.nextUpdate, f.forceGeneralizedTime);
    if (entryCount > 0) {
      w.Begin(der::kSequence);
      writeEntries(w);
      w.End();
    }
    if (!f.extensionsDer.empty()) {
      w.Begin(der::CtxCons(0));
      w.Raw(f.extensionsDer);
      w.End();
    }
  });
}

// splitmix64's finaliser: a bijection of 64-bit values.
uint64_t Mix64(uint64_t x) {
  x ^= x >> 30;
  x *= 0xBF58476D1CE4E5B9ULL;
  x ^= x >> 27;
  x *= 0x94D049BB133111EBULL;
  x ^= x >> 31;
  return x;
}

uint64_t LargeCrlPrefix(uint64_t seed) { return Mix64(seed ^ 0x5175696C6C6F6E32ULL); }

Serial LargeSerial(uint64_t prefix, uint64_t low, bool absent) {
  Bytes b(16);
  for (int i = 0; i < 8; ++i) {
    b[static_cast<size_t>(i)] = static_cast<uint8_t>(prefix >> (56 - 8 * i));
    b[static_cast<size_t>(8 + i)] = static_cast<uint8_t>(low >> (56 - 8 * i));
  }
  b[0] = static_cast<uint8_t>((b[0] & 0x3F) | 0x40);  // positive, minimal
  // Present serials have the top bit of byte 1 clear, absent ones set.
  b[1] = absent ? static_cast<uint8_t>(b[1] | 0x80) : static_cast<uint8_t>(b[1] & 0x7F);
  return Serial::FromBytes(std::move(b));
}

constexpr int kLargeCrlReasons[] = {kReasonKeyCompromise,   kReasonSuperseded,
                                    kReasonCessationOfOperation, kReasonAffiliationChanged,
                                    kReasonCertificateHold, kReasonPrivilegeWithdrawn};

}  // namespace

// ---------------------------------------------------------------------------
// Keys.

const char* KeyTypeName(KeyType type) {
  switch (type) {
    case KeyType::kRsa2048: return "RSA2048";
    case KeyType::kEcP256: return "P256";
    case KeyType::kEcP384: return "P384";
    case KeyType::kEcP521: return "P521";
    case KeyType::kBrainpoolP256r1: return "BrainpoolP256r1";
  }
  return "?";
}

Key::Key(const Key& other) : type_(other.type_) {
  if (other.pkey_) {
    EVP_PKEY_up_ref(other.pkey_.get());
    pkey_.reset(other.pkey_.get());
  }
}

Key& Key::operator=(const Key& other) {
  if (this != &other) {
    Key copy(other);
    *this = std::move(copy);
  }
  return *this;
}

Key FreshKey(KeyType type) {
  EVP_PKEY* p = nullptr;
  switch (type) {
    case KeyType::kRsa2048: p = EVP_RSA_gen(2048); break;
    case KeyType::kEcP256: p = EVP_EC_gen("P-256"); break;
    case KeyType::kEcP384: p = EVP_EC_gen("P-384"); break;
    case KeyType::kEcP521: p = EVP_EC_gen("P-521"); break;
    case KeyType::kBrainpoolP256r1: p = EVP_EC_gen("brainpoolP256r1"); break;
  }
  if (p == nullptr) Fail(std::string("key generation ") + KeyTypeName(type));
  return Key(EvpPkeyPtr(p), type);
}

const Key& PooledKey(KeyType type, int slot) {
  static std::mutex mu;
  static std::map<std::pair<int, int>, std::unique_ptr<Key>> pool;
  std::lock_guard<std::mutex> lock(mu);
  auto& entry = pool[{static_cast<int>(type), slot}];
  if (!entry) entry = std::make_unique<Key>(FreshKey(type));
  return *entry;
}

Key MakeKey(KeyType type) {
  if (type != KeyType::kRsa2048) return FreshKey(type);
  static std::atomic<unsigned> next{0};
  return PooledKey(type, static_cast<int>(next.fetch_add(1) % kRsaPoolSize));
}

std::vector<uint8_t> PublicKeyDer(const Key& key) {
  unsigned char* p = nullptr;
  int n = i2d_PUBKEY(key.get(), &p);
  if (n <= 0) Fail("i2d_PUBKEY");
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

std::vector<uint8_t> KeyIdentifier(const Key& key) {
  Bytes spki = PublicKeyDer(key);
  const unsigned char* p = spki.data();
  X509_PUBKEY* xpk = d2i_X509_PUBKEY(nullptr, &p, static_cast<long>(spki.size()));
  const unsigned char* bits = nullptr;
  int len = 0;
  if (xpk == nullptr || !X509_PUBKEY_get0_param(nullptr, &bits, &len, nullptr, xpk)) {
    X509_PUBKEY_free(xpk);
    Fail("X509_PUBKEY");
  }
  Bytes out(SHA_DIGEST_LENGTH);
  SHA1(bits, static_cast<size_t>(len), out.data());
  X509_PUBKEY_free(xpk);
  return out;
}

std::string PrivateKeyPem(const Key& key) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!PEM_write_bio_PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr))
    Fail("PEM_write_bio_PrivateKey");
  return BioText(bio.get());
}

// ---------------------------------------------------------------------------
// Times, integers.

time_t Now() { return time(nullptr); }

time_t UtcTime(int year, int month, int day, int hour, int minute, int second) {
  struct tm tm {};
  tm.tm_year = year - 1900;
  tm.tm_mon = month - 1;
  tm.tm_mday = day;
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = second;
  return timegm(&tm);
}

Serial::Serial(long long value) : bytes(DerWriter::IntegerContent(value)) {}

Serial Serial::FromUnsigned(uint64_t value) {
  Serial s;
  s.bytes = DerWriter::UnsignedContent(value);
  return s;
}

Serial Serial::FromBytes(std::vector<uint8_t> raw) {
  Serial s;
  s.bytes = std::move(raw);
  return s;
}

Serial Serial::FromHex(const std::string& hexIn) {
  std::string hex = hexIn;
  if (hex.size() >= 2 && hex[0] == '0' && (hex[1] == 'x' || hex[1] == 'X')) hex.erase(0, 2);
  if (hex.size() % 2) hex.insert(hex.begin(), '0');
  auto nib = [&](char c) -> uint8_t {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    Fail("bad hex: " + hexIn);
  };
  Bytes b;
  for (size_t i = 0; i < hex.size(); i += 2)
    b.push_back(static_cast<uint8_t>(nib(hex[i]) << 4 | nib(hex[i + 1])));
  return FromBytes(std::move(b));
}

std::string Hex(const std::vector<uint8_t>& bytes) {
  static const char* kDigits = "0123456789ABCDEF";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (uint8_t b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0F]);
  }
  return out;
}

Serial SerialOf(const X509* cert) {
  unsigned char* p = nullptr;
  int n = i2d_ASN1_INTEGER(X509_get0_serialNumber(cert), &p);
  if (n <= 0) Fail("i2d_ASN1_INTEGER");
  Bytes tlv(p, p + n);
  OPENSSL_free(p);
  return Serial::FromBytes(ContentOf(tlv));
}

// ---------------------------------------------------------------------------
// Names.

NameSpec Dn(std::initializer_list<std::pair<std::string, std::string>> attrs) {
  NameSpec out;
  for (const auto& [type, value] : attrs) out.push_back(Rdn{Attr{type, value}});
  return out;
}

NameSpec TestName(const std::string& cn) {
  return Dn({{"C", "IT"}, {"O", "Quillon32 Test PKI"}, {"CN", cn}});
}

// Name ::= SEQUENCE OF RelativeDistinguishedName
// RelativeDistinguishedName ::= SET SIZE (1..MAX) OF AttributeTypeAndValue
// AttributeTypeAndValue ::= SEQUENCE { type OID, value ANY }
std::vector<uint8_t> NameDer(const NameSpec& name) {
  DerWriter w;
  w.Begin(der::kSequence);
  for (const Rdn& rdn : name) {
    std::vector<Bytes> atvs;
    for (const Attr& a : rdn) {
      DerWriter aw;
      std::string dotted = DottedOid(a.type);
      aw.Begin(der::kSequence);
      aw.Oid(dotted);
      WriteAttrValue(aw, dotted, a);
      aw.End();
      atvs.push_back(aw.Take());
    }
    std::sort(atvs.begin(), atvs.end());  // DER SET OF order
    w.Begin(der::kSet);
    for (const auto& atv : atvs) w.Raw(atv);
    w.End();
  }
  w.End();
  return w.Take();
}

X509NamePtr MakeX509Name(const NameSpec& name) {
  Bytes der = NameDer(name);
  const unsigned char* p = der.data();
  X509NamePtr out(d2i_X509_NAME(nullptr, &p, static_cast<long>(der.size())));
  if (!out) Fail("d2i_X509_NAME");
  return out;
}

std::string NameText(const X509_NAME* name) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  X509_NAME_print_ex(bio.get(), name, 0, XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
  return BioText(bio.get());
}

// ---------------------------------------------------------------------------
// Signatures.

const EVP_MD* DigestMd(Digest digest) {
  switch (digest) {
    case Digest::kSha1: return EVP_sha1();
    case Digest::kSha256: return EVP_sha256();
    case Digest::kSha384: return EVP_sha384();
    case Digest::kSha512: return EVP_sha512();
  }
  return EVP_sha256();
}

std::vector<uint8_t> SignatureAlgorithmDer(const Key& key, Digest digest, bool rsaPss) {
  EvpMdCtxPtr ctx = InitSign(key, digest, rsaPss);
  return AlgorithmIdOf(ctx.get());
}

std::vector<uint8_t> SignTbs(const std::vector<uint8_t>& tbs, const Key& key, Digest digest,
                             bool rsaPss) {
  EvpMdCtxPtr ctx = InitSign(key, digest, rsaPss);
  Bytes algId = AlgorithmIdOf(ctx.get());
  Bytes sig = SignBytes(ctx.get(), tbs.data(), tbs.size());
  DerWriter w;
  w.Begin(der::kSequence);
  w.Raw(tbs);
  w.Raw(algId);
  w.BitString(sig);
  w.End();
  return w.Take();
}

// ---------------------------------------------------------------------------
// Certificates.

X509Ptr MakeCert(const CertSpec& s) {
  if (!s.subjectKey) Fail("CertSpec.subjectKey is required");
  if (s.version < 1 || s.version > 3) Fail("CertSpec.version must be 1, 2 or 3");
  const Key& issuerKey = s.issuerKey ? s.issuerKey : s.subjectKey;
  const Key& signKey = s.signWithKey ? s.signWithKey : issuerKey;

  X509Ptr x(X509_new());
  if (!x || !X509_set_version(x.get(), s.version - 1)) Fail("X509_new");
  const Serial serial = s.serial.empty() ? RandomSerial() : s.serial;
  Asn1IntegerPtr sn = ToAsn1Integer(serial);
  X509NamePtr subject = MakeX509Name(s.subject);
  X509NamePtr issuerOwn;
  const X509_NAME* issuer;
  if (s.issuerCert != nullptr) {
    issuer = X509_get_subject_name(s.issuerCert);
  } else {
    issuerOwn = MakeX509Name(s.issuer.empty() ? s.subject : s.issuer);
    issuer = issuerOwn.get();
  }
  Asn1TimePtr nb = ToAsn1Time(s.notBefore, s.forceGeneralizedTime);
  Asn1TimePtr na = ToAsn1Time(s.notAfter, s.forceGeneralizedTime);
  if (!X509_set_serialNumber(x.get(), sn.get()) || !X509_set_subject_name(x.get(), subject.get()) ||
      !X509_set_issuer_name(x.get(), issuer) || !X509_set1_notBefore(x.get(), nb.get()) ||
      !X509_set1_notAfter(x.get(), na.get()) || !X509_set_pubkey(x.get(), s.subjectKey.get()))
    Fail("certificate fields");

  if (s.version == 3) {
    if (s.basicConstraints)
      AddCertExtension(x.get(), "2.5.29.19", s.basicConstraints->critical,
                       BasicConstraintsValue(*s.basicConstraints));
    if (s.keyUsage)
      AddCertExtension(x.get(), "2.5.29.15", s.keyUsage->critical, KeyUsageValue(*s.keyUsage));
    if (!s.extKeyUsage.empty())
      AddCertExtension(x.get(), "2.5.29.37", s.extKeyUsageCritical, EkuValue(s.extKeyUsage));
    if (s.subjectKeyId.mode != KeyIdMode::kAbsent) {
      Bytes id = s.subjectKeyId.mode == KeyIdMode::kGiven ? s.subjectKeyId.keyId
                                                          : KeyIdentifier(s.subjectKey);
      AddCertExtension(x.get(), "2.5.29.14", s.subjectKeyId.critical, OctetStringValue(id));
    }
    const AuthorityKeyIdSpec& aki = s.authorityKeyId;
    if (aki.mode != KeyIdMode::kAbsent) {
      Bytes id;
      if (aki.mode == KeyIdMode::kGiven)
        id = aki.keyId;
      else
        id = s.issuerCert != nullptr ? CertKeyId(s.issuerCert) : KeyIdentifier(issuerKey);
      Bytes issuerIssuer;
      Serial issuerSerial;
      if (aki.withIssuerAndSerial) {
        if (s.issuerCert != nullptr) {
          issuerIssuer = NameDerOf(X509_get_issuer_name(s.issuerCert));
          issuerSerial = SerialOf(s.issuerCert);
        } else {  // self-signed: its own issuer and serial
          issuerIssuer = NameDerOf(issuer);
          issuerSerial = serial;
        }
      }
      AddCertExtension(x.get(), "2.5.29.35", aki.critical,
                       AkiValue(aki.omitKeyId ? nullptr : &id,
                                aki.withIssuerAndSerial ? &issuerIssuer : nullptr,
                                aki.withIssuerAndSerial ? &issuerSerial : nullptr));
    }
    if (!s.crlDistributionPoints.empty())
      AddCertExtension(x.get(), "2.5.29.31", s.crlDistributionPointsCritical,
                       CrlDpValue(s.crlDistributionPoints));
    if (!s.ocspUris.empty() || !s.caIssuersUris.empty())
      AddCertExtension(x.get(), "1.3.6.1.5.5.7.1.1", false, AiaValue(s.ocspUris, s.caIssuersUris));
    if (s.ocspNoCheck) {
      DerWriter w;
      w.Null();
      AddCertExtension(x.get(), "1.3.6.1.5.5.7.48.1.5", false, w.Take());
    }
    for (const auto& e : s.extraExtensions) AddCertExtension(x.get(), e.oid, e.critical, e.value);
  }

  EvpMdCtxPtr ctx = InitSign(signKey, s.digest, s.rsaPss);
  if (X509_sign_ctx(x.get(), ctx.get()) <= 0) Fail("X509_sign_ctx");
  // Round-trip so that the object holds exactly the encoding it will give.
  return ParseCert(Der(x.get()));
}

CertSpec RootCaSpec(const NameSpec& subject, const Key& key) {
  CertSpec s;
  s.subject = subject;
  s.subjectKey = key;
  s.notBefore = Now() - 30 * kDay;
  s.notAfter = Now() + 10 * 365 * kDay;
  s.basicConstraints = BasicConstraintsSpec{.ca = true};
  s.keyUsage = KeyUsageSpec{.bits = {kKuKeyCertSign, kKuCrlSign}};
  return s;
}

CertSpec SubCaSpec(const NameSpec& subject, const Key& key, const X509* issuerCert,
                   const Key& issuerKey, std::optional<long> pathLen) {
  CertSpec s = RootCaSpec(subject, key);
  s.issuerCert = issuerCert;
  s.issuerKey = issuerKey;
  s.notAfter = Now() + 5 * 365 * kDay;
  s.basicConstraints = BasicConstraintsSpec{.ca = true, .pathLen = pathLen};
  return s;
}

CertSpec LeafSpec(const NameSpec& subject, const Key& key, const X509* issuerCert,
                  const Key& issuerKey) {
  CertSpec s;
  s.subject = subject;
  s.subjectKey = key;
  s.issuerCert = issuerCert;
  s.issuerKey = issuerKey;
  s.keyUsage = KeyUsageSpec{.bits = {kKuDigitalSignature, kKuNonRepudiation}};
  return s;
}

X509Ptr MakeOcspResponderCert(const X509* caCert, const Key& caKey, const Key& responderKey,
                              bool withOcspSigningEku, const NameSpec& subject) {
  CertSpec s = LeafSpec(subject, responderKey, caCert, caKey);
  s.keyUsage = KeyUsageSpec{.bits = {kKuDigitalSignature}};
  if (withOcspSigningEku) s.extKeyUsage = {kOidOcspSigning};
  return MakeCert(s);
}

std::vector<uint8_t> Der(const X509* cert) {
  unsigned char* p = nullptr;
  int n = i2d_X509(cert, &p);
  if (n <= 0) Fail("i2d_X509");
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

std::string Pem(const X509* cert) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!PEM_write_bio_X509(bio.get(), const_cast<X509*>(cert))) Fail("PEM_write_bio_X509");
  return BioText(bio.get());
}

X509Ptr ParseCert(const std::vector<uint8_t>& der) {
  const unsigned char* p = der.data();
  X509Ptr out(d2i_X509(nullptr, &p, static_cast<long>(der.size())));
  if (!out) Fail("d2i_X509");
  return out;
}

X509Ptr Ref(const X509* cert) {
  if (cert == nullptr) return nullptr;
  X509_up_ref(const_cast<X509*>(cert));
  return X509Ptr(const_cast<X509*>(cert));
}

std::vector<uint8_t> TbsDer(const X509* cert) {
  unsigned char* p = nullptr;
  int n = i2d_re_X509_tbs(const_cast<X509*>(cert), &p);
  if (n <= 0) Fail("i2d_re_X509_tbs");
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

Pki MakePki(KeyType type, const PkiOptions& o) {
  Pki pki;
  pki.type = type;
  pki.rootKey = MakeKey(type);
  pki.intermediateKey = MakeKey(type);
  pki.leafKey = MakeKey(type);

  CertSpec root = RootCaSpec(TestName(o.rootCn), pki.rootKey);
  root.notBefore = o.notBefore;
  root.notAfter = o.notAfter;
  root.digest = o.digest;
  pki.root = MakeCert(root);

  CertSpec mid = SubCaSpec(TestName(o.intermediateCn), pki.intermediateKey, pki.root.get(),
                           pki.rootKey, 0);
  mid.notBefore = o.notBefore;
  mid.notAfter = o.notAfter;
  mid.digest = o.digest;
  if (!o.rootCrlUri.empty()) mid.crlDistributionPoints = {DistPointSpec{.uris = {o.rootCrlUri}}};
  pki.intermediate = MakeCert(mid);

  CertSpec leaf = LeafSpec(TestName(o.leafCn), pki.leafKey, pki.intermediate.get(),
                           pki.intermediateKey);
  leaf.notBefore = o.notBefore;
  leaf.notAfter = o.notAfter;
  leaf.digest = o.digest;
  if (!o.intermediateCrlUri.empty())
    leaf.crlDistributionPoints = {DistPointSpec{.uris = {o.intermediateCrlUri}}};
  if (!o.ocspUri.empty()) leaf.ocspUris = {o.ocspUri};
  pki.leaf = MakeCert(leaf);
  return pki;
}

// ---------------------------------------------------------------------------
// CRLs.

std::vector<uint8_t> MakeCrlDer(const CrlSpec& s) {
  if (!s.signingKey) Fail("CrlSpec.signingKey is required");
  if (s.version < 1 || s.version > 2) Fail("CrlSpec.version must be 1 or 2");
  const Key& signKey = s.signWithKey ? s.signWithKey : s.signingKey;
  const bool v2 = s.version == 2;

  CrlFrame f;
  f.issuerDer = s.issuerCert != nullptr ? NameDerOf(X509_get_subject_name(s.issuerCert))
                                        : NameDer(s.issuer);
  f.version = s.version;
  f.thisUpdate = s.thisUpdate;
  f.nextUpdate = s.nextUpdate;
  f.forceGeneralizedTime = s.forceGeneralizedTime;

  if (v2) {
    DerWriter w;
    w.Begin(der::kSequence);
    const AuthorityKeyIdSpec& aki = s.authorityKeyId;
    if (aki.mode != KeyIdMode::kAbsent) {
      Bytes id = aki.mode == KeyIdMode::kGiven ? aki.keyId
                 : s.issuerCert != nullptr     ? CertKeyId(s.issuerCert)
                                               : KeyIdentifier(s.signingKey);
      Bytes issuerIssuer;
      Serial issuerSerial;
      if (aki.withIssuerAndSerial) {
        if (s.issuerCert == nullptr) Fail("AKI issuer and serial need CrlSpec.issuerCert");
        issuerIssuer = NameDerOf(X509_get_issuer_name(s.issuerCert));
        issuerSerial = SerialOf(s.issuerCert);
      }
      WriteExtension(w, "2.5.29.35", aki.critical,
                     AkiValue(aki.omitKeyId ? nullptr : &id,
                              aki.withIssuerAndSerial ? &issuerIssuer : nullptr,
                              aki.withIssuerAndSerial ? &issuerSerial : nullptr));
    }
    if (s.crlNumber) WriteExtension(w, "2.5.29.20", false, IntegerValue(*s.crlNumber));
    if (s.issuingDistributionPoint)
      WriteExtension(w, "2.5.29.28", s.issuingDistributionPoint->critical,
                     IdpValue(*s.issuingDistributionPoint));
    if (s.expiredCertsOnCrl)
      WriteExtension(w, kOidExpiredCertsOnCrl, false, GeneralizedTimeValue(*s.expiredCertsOnCrl));
    for (const auto& e : s.extensions) WriteExtension(w, DottedOid(e.oid), e.critical, e.value);
    w.End();
    Bytes exts = w.Take();
    if (exts.size() > 2) f.extensionsDer = std::move(exts);
  }

  return BuildCrl(f, signKey, s.digest, s.rsaPss, s.revoked.size(), s.revoked.size() * 64,
                  [&](DerWriter& w) {
                    for (const RevokedSpec& r : s.revoked) {
                      w.Begin(der::kSequence);
                      w.Integer(r.serial.bytes);
                      w.Time(r.revocationDate, s.forceGeneralizedTime);
                      if (v2 && (r.reason || r.invalidityDate || !r.extensions.empty())) {
                        w.Begin(der::kSequence);
                        if (r.reason) WriteExtension(w, "2.5.29.21", false, EnumeratedValue(*r.reason));
                        if (r.invalidityDate)
                          WriteExtension(w, kOidInvalidityDate, false,
                                         GeneralizedTimeValue(*r.invalidityDate));
                        for (const auto& e : r.extensions)
                          WriteExtension(w, DottedOid(e.oid), e.critical, e.value);
                        w.End();
                      }
                      w.End();
                    }
                  });
}

X509CrlPtr MakeCrl(const CrlSpec& spec) { return ParseCrl(MakeCrlDer(spec)); }

std::vector<uint8_t> Der(const X509_CRL* crl) {
  unsigned char* p = nullptr;
  int n = i2d_X509_CRL(crl, &p);
  if (n <= 0) Fail("i2d_X509_CRL");
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

std::string Pem(const X509_CRL* crl) {
  BioPtr bio(BIO_new(BIO_s_mem()));
  if (!PEM_write_bio_X509_CRL(bio.get(), const_cast<X509_CRL*>(crl))) Fail("PEM_write_bio_X509_CRL");
  return BioText(bio.get());
}

X509CrlPtr ParseCrl(const std::vector<uint8_t>& der) {
  const unsigned char* p = der.data();
  X509CrlPtr out(d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size())));
  if (!out) Fail("d2i_X509_CRL");
  return out;
}

Serial LargeCrlSerial(size_t index, uint64_t seed) {
  const uint64_t prefix = LargeCrlPrefix(seed);
  return LargeSerial(prefix, Mix64(static_cast<uint64_t>(index) + prefix), false);
}

Serial LargeCrlAbsentSerial(size_t k, uint64_t seed) {
  const uint64_t prefix = LargeCrlPrefix(seed);
  return LargeSerial(prefix, Mix64(static_cast<uint64_t>(k) + prefix), true);
}

CrlEntryInfo LargeCrlEntry(size_t index, uint64_t seed) {
  static const time_t kBase = UtcTime(2020, 1, 1);
  CrlEntryInfo e;
  e.serial = LargeCrlSerial(index, seed);
  e.revocationDate =
      kBase + static_cast<time_t>(Mix64(index ^ (seed * 0x9E3779B97F4A7C15ULL)) % (3 * 365 * kDay));
  if (index % 3 == 0) e.reason = kLargeCrlReasons[(index / 3) % std::size(kLargeCrlReasons)];
  if (index % 100000 == 1) e.invalidityDate = e.revocationDate - kDay;
  return e;
}

std::vector<uint8_t> MakeLargeCrl(const Key& issuerKey, const NameSpec& issuer, size_t entries,
                                  uint64_t seed, const LargeCrlOptions& o) {
  CrlFrame f;
  f.issuerDer = NameDer(issuer);
  f.thisUpdate = o.thisUpdate != 0 ? o.thisUpdate : Now() - kHour;
  f.nextUpdate = o.nextUpdate != 0 ? o.nextUpdate : f.thisUpdate + 7 * kDay;
  {
    DerWriter w;
    w.Begin(der::kSequence);
    if (o.authorityKeyId) {
      Bytes id = KeyIdentifier(issuerKey);
      WriteExtension(w, "2.5.29.35", false, AkiValue(&id, nullptr, nullptr));
    }
    if (o.crlNumber)
      WriteExtension(w, "2.5.29.20", false, IntegerValue(Serial::FromUnsigned(*o.crlNumber)));
    w.End();
    Bytes exts = w.Take();
    if (exts.size() > 2) f.extensionsDer = std::move(exts);
  }

  // The crlEntryExtensions of each reason, encoded once.
  std::map<int, Bytes> reasonExts;
  for (int r : kLargeCrlReasons) {
    DerWriter w;
    w.Begin(der::kSequence);
    WriteExtension(w, "2.5.29.21", false, EnumeratedValue(r));
    w.End();
    reasonExts[r] = w.Take();
  }

  return BuildCrl(f, issuerKey, o.digest, false, entries, entries * 48, [&](DerWriter& w) {
    for (size_t i = 0; i < entries; ++i) {
      CrlEntryInfo e = LargeCrlEntry(i, seed);
      w.Begin(der::kSequence);
      w.Integer(e.serial.bytes);
      w.UtcTime(e.revocationDate);  // 2020-2022
      if (e.invalidityDate) {
        w.Begin(der::kSequence);
        if (e.reason) WriteExtension(w, "2.5.29.21", false, EnumeratedValue(*e.reason));
        WriteExtension(w, kOidInvalidityDate, false, GeneralizedTimeValue(*e.invalidityDate));
        w.End();
      } else if (e.reason) {
        w.Raw(reasonExts[*e.reason]);
      }
      w.End();
    }
  });
}

// ---------------------------------------------------------------------------
// OCSP.

OcspResponsePtr MakeOcsp(const OcspSpec& s) {
  const int status = static_cast<int>(s.responseStatus);
  if (s.responseStatus != OcspResponseStatus::kSuccessful) {
    OcspResponsePtr r(OCSP_response_create(status, nullptr));
    if (!r) Fail("OCSP_response_create");
    return r;
  }
  if (s.signerCert == nullptr || !s.signerKey) Fail("OcspSpec.signerCert and signerKey are required");

  OcspBasicPtr bs(OCSP_BASICRESP_new());
  if (!bs) Fail("OCSP_BASICRESP_new");
  for (const SingleResponseSpec& r : s.responses) {
    if (r.issuerCert == nullptr) Fail("SingleResponseSpec.issuerCert is required");
    Asn1IntegerPtr serial = ToAsn1Integer(r.serial);
    CertIdPtr id(OCSP_cert_id_new(DigestMd(r.certIdHash), X509_get_subject_name(r.issuerCert),
                                  X509_get0_pubkey_bitstr(r.issuerCert), serial.get()));
    if (!id) Fail("OCSP_cert_id_new");
    int st = V_OCSP_CERTSTATUS_GOOD;
    Asn1TimePtr revTime;
    int reason = OCSP_REVOKED_STATUS_NOSTATUS;
    if (r.status == CertStatus::kRevoked) {
      st = V_OCSP_CERTSTATUS_REVOKED;
      revTime = ToAsn1Time(r.revocationTime, true);
      if (r.reason) reason = *r.reason;
    } else if (r.status == CertStatus::kUnknown) {
      st = V_OCSP_CERTSTATUS_UNKNOWN;
    }
    Asn1TimePtr thisUpd = ToAsn1Time(r.thisUpdate, true);
    Asn1TimePtr nextUpd;
    if (r.nextUpdate) nextUpd = ToAsn1Time(*r.nextUpdate, true);
    OCSP_SINGLERESP* single = OCSP_basic_add1_status(bs.get(), id.get(), st, reason, revTime.get(),
                                                     thisUpd.get(), nextUpd.get());
    if (single == nullptr) Fail("OCSP_basic_add1_status");
    if (r.invalidityDate) {
      ExtensionPtr ext =
          MakeExtension(kOidInvalidityDate, false, GeneralizedTimeValue(*r.invalidityDate));
      if (!OCSP_SINGLERESP_add_ext(single, ext.get(), -1)) Fail("OCSP_SINGLERESP_add_ext");
    }
    for (const auto& e : r.extensions) {
      ExtensionPtr ext = MakeExtension(e.oid, e.critical, e.value);
      if (!OCSP_SINGLERESP_add_ext(single, ext.get(), -1)) Fail("OCSP_SINGLERESP_add_ext");
    }
  }
  if (s.nonce) {
    Bytes nonce = *s.nonce;
    if (!OCSP_basic_add1_nonce(bs.get(), nonce.data(), static_cast<int>(nonce.size())))
      Fail("OCSP_basic_add1_nonce");
  }
  // producedAt is set here and kept by OCSP_NOTIME below.
  auto* produced = const_cast<ASN1_GENERALIZEDTIME*>(OCSP_resp_get0_produced_at(bs.get()));
  if (produced == nullptr || !ASN1_GENERALIZEDTIME_set(produced, s.producedAt)) Fail("producedAt");
  for (const X509* c : s.certs)
    if (!OCSP_basic_add1_cert(bs.get(), const_cast<X509*>(c))) Fail("OCSP_basic_add1_cert");

  unsigned long flags = OCSP_NOCERTS | OCSP_NOTIME;
  if (s.responderId == ResponderIdType::kByKey) flags |= OCSP_RESPID_KEY;
  EvpMdCtxPtr ctx = InitSign(s.signerKey, s.digest, s.rsaPss);
  if (!OCSP_basic_sign_ctx(bs.get(), const_cast<X509*>(s.signerCert), ctx.get(), nullptr, flags))
    Fail("OCSP_basic_sign_ctx");
  if (s.signWithKey) {
    // OCSP_basic_sign_ctx insists on the responder's own key; sign the same
    // ResponseData again with the other key.
    EvpMdCtxPtr wrong = InitSign(s.signWithKey, s.digest, s.rsaPss);
    if (ASN1_item_sign_ctx(ASN1_ITEM_rptr(OCSP_RESPDATA),
                           const_cast<X509_ALGOR*>(OCSP_resp_get0_tbs_sigalg(bs.get())), nullptr,
                           const_cast<ASN1_BIT_STRING*>(OCSP_resp_get0_signature(bs.get())),
                           const_cast<OCSP_RESPDATA*>(OCSP_resp_get0_respdata(bs.get())),
                           wrong.get()) <= 0)
      Fail("signing with the other key");
  }
  OcspResponsePtr resp(OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, bs.get()));
  if (!resp) Fail("OCSP_response_create");
  return resp;
}

std::vector<uint8_t> MakeOcspDer(const OcspSpec& spec) { return Der(MakeOcsp(spec).get()); }

std::vector<uint8_t> Der(const OCSP_RESPONSE* response) {
  unsigned char* p = nullptr;
  int n = i2d_OCSP_RESPONSE(response, &p);
  if (n <= 0) Fail("i2d_OCSP_RESPONSE");
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

OcspResponsePtr ParseOcsp(const std::vector<uint8_t>& der) {
  const unsigned char* p = der.data();
  OcspResponsePtr out(d2i_OCSP_RESPONSE(nullptr, &p, static_cast<long>(der.size())));
  if (!out) Fail("d2i_OCSP_RESPONSE");
  return out;
}

// ---------------------------------------------------------------------------
// Files.

std::vector<uint8_t> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

void WriteFile(const std::string& path, const std::string& text) {
  WriteFile(path, Bytes(text.begin(), text.end()));
}

std::string TestDataPath(const std::string& relative) {
  std::string base = QUILLON_TESTDATA_DIR;
  if (relative.empty()) return base;
  return base + "/" + relative;
}

TempDir::TempDir() {
  const char* tmp = getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/quillon-test-XXXXXX";
  std::vector<char> buf(tmpl.begin(), tmpl.end());
  buf.push_back('\0');
  if (mkdtemp(buf.data()) == nullptr) throw std::runtime_error("mkdtemp " + tmpl);
  path_ = buf.data();
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

}  // namespace quillon::testing
