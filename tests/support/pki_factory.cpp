#include "support/pki_factory.h"

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/ocsp.h>
#include <openssl/params.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>

#include "support/der_writer.h"

namespace quillon::testing {
namespace {

using Bytes = std::vector<uint8_t>;

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

// The DER of an OpenSSL object through its i2d function.
template <typename T>
Bytes ToDer(int (*i2d)(const T*, unsigned char**), const T* object, const char* what) {
  unsigned char* p = nullptr;
  const int n = i2d(object, &p);
  if (n <= 0) Fail(what);
  Bytes out(p, p + n);
  OPENSSL_free(p);
  return out;
}

// An OpenSSL object read from DER through its d2i function; never null.
template <typename T>
T* FromDer(T* (*d2i)(T**, const unsigned char**, long), const Bytes& der, const std::string& what) {
  const unsigned char* p = der.data();
  T* out = d2i(nullptr, &p, static_cast<long>(der.size()));
  if (out == nullptr) Fail(what);
  return out;
}

// What |write| puts in a fresh writer.
template <typename Write>
Bytes Encode(Write&& write) {
  DerWriter w;
  write(w);
  return w.Take();
}

// Dotted text of an OID given by name or dotted text.
std::string DottedOid(const std::string& nameOrOid) {
  ASN1_OBJECT* obj = OBJ_txt2obj(nameOrOid.c_str(), 0);
  if (obj == nullptr) Fail("unknown OID or name: " + nameOrOid);
  char buf[128];
  const int n = OBJ_obj2txt(buf, sizeof buf, obj, 1);
  ASN1_OBJECT_free(obj);
  if (n <= 0 || static_cast<size_t>(n) >= sizeof buf) Fail("OID text: " + nameOrOid);
  return std::string(buf, static_cast<size_t>(n));
}

Serial RandomSerial() {
  Bytes b(16);
  if (RAND_bytes(b.data(), static_cast<int>(b.size())) != 1) Fail("RAND_bytes");
  b[0] = static_cast<uint8_t>((b[0] & 0x3F) | 0x40);  // positive, minimal
  return Serial::FromBytes(std::move(b));
}

// --- Names -----------------------------------------------------------------

// The value's string type: PrintableString for C, serialNumber and
// dnQualifier; IA5String for emailAddress and DC; UTF8String otherwise.
void WriteAttrValue(DerWriter& w, const std::string& dottedType, const std::string& value) {
  if (dottedType == "2.5.4.6" || dottedType == "2.5.4.5" || dottedType == "2.5.4.46")
    w.Tlv(der::kPrintableString, value);
  else if (dottedType == "1.2.840.113549.1.9.1" || dottedType == "0.9.2342.19200300.100.1.25")
    w.Tlv(der::kIa5String, value);
  else
    w.Tlv(der::kUtf8String, value);
}

Bytes NameDerOf(const X509_NAME* name) { return ToDer(i2d_X509_NAME, name, "i2d_X509_NAME"); }

// --- Extension values --------------------------------------------------------

constexpr const char* kOidInvalidityDate = "2.5.29.24";

void WriteExtension(DerWriter& w, const std::string& dottedOid, bool critical, const Bytes& value) {
  w.Begin(der::kSequence);
  w.Oid(dottedOid);
  if (critical) w.Boolean(true);
  w.OctetString(value);
  w.End();
}

// DistributionPointName fullName [0] of URIs and directory names, inside the
// explicit [0] of the field that holds it.
void WriteFullName(DerWriter& w, const std::vector<std::string>& uris,
                   const std::vector<NameSpec>& directoryNames = {}) {
  w.Begin(der::CtxCons(0));
  w.Begin(der::CtxCons(0));
  for (const auto& uri : uris) w.Tlv(der::Ctx(6), uri);
  for (const auto& dn : directoryNames) {
    w.Begin(der::CtxCons(4));  // directoryName [4] Name (explicit: Name is a CHOICE)
    w.Raw(NameDer(dn));
    w.End();
  }
  w.End();
  w.End();
}

// AuthorityKeyIdentifier ::= SEQUENCE { keyIdentifier [0] KeyIdentifier, ... }
Bytes AkiValue(const Bytes& keyId) {
  return Encode([&](DerWriter& w) {
    w.Begin(der::kSequence);
    w.Tlv(der::Ctx(0), keyId);
    w.End();
  });
}

Bytes GeneralizedTimeValue(time_t t) {
  return Encode([&](DerWriter& w) { w.GeneralizedTime(t); });
}

// --- Signing -----------------------------------------------------------------

EvpMdCtxPtr InitSign(const Key& key) {
  if (!key) Fail("no signing key");
  EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx || EVP_DigestSignInit(ctx.get(), nullptr, EVP_sha256(), nullptr, key.get()) != 1)
    Fail("EVP_DigestSignInit");
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

// SEQUENCE { tbs, signatureAlgorithm, signature }: |writeTbs| writes the
// whole TBS element, given the AlgorithmIdentifier, and it is signed in place.
template <typename WriteTbs>
Bytes Signed(const Key& key, size_t reserve, WriteTbs&& writeTbs) {
  EvpMdCtxPtr ctx = InitSign(key);
  const Bytes algId = AlgorithmIdOf(ctx.get());
  DerWriter w;
  w.Reserve(reserve + 1024);
  w.Begin(der::kSequence);
  const size_t start = w.size();
  writeTbs(w, algId);
  size_t len = 0;
  const uint8_t* tbs = w.bytes().data() + start;
  if (EVP_DigestSign(ctx.get(), nullptr, &len, tbs, w.size() - start) != 1) Fail("EVP_DigestSign");
  Bytes sig(len);
  if (EVP_DigestSign(ctx.get(), sig.data(), &len, tbs, w.size() - start) != 1)
    Fail("EVP_DigestSign");
  sig.resize(len);
  w.Raw(algId);
  w.BitString(sig);
  w.End();
  return w.Take();
}

// --- CRL encoding ------------------------------------------------------------

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
// The frame comes from |s| (its entries are not read); |writeEntries| writes
// |entryCount| entries.
template <typename WriteEntries>
Bytes BuildCrl(const CrlSpec& s, const Bytes& issuer, size_t entryCount, size_t reserve,
               WriteEntries&& writeEntries) {
  if (s.version != 1 && s.version != 2) Fail("CrlSpec.version must be 1 or 2");
  return Signed(s.signingKey, reserve, [&](DerWriter& w, const Bytes& algId) {
    w.Begin(der::kSequence);
    if (s.version == 2) w.Integer(1);
    w.Raw(algId);
    w.Raw(issuer);
    w.Time(s.thisUpdate);
    if (s.nextUpdate) w.Time(*s.nextUpdate);
    if (entryCount > 0) {
      w.Begin(der::kSequence);
      writeEntries(w);
      w.End();
    }
    if (s.version == 2) {
      w.Begin(der::CtxCons(0));
      w.Begin(der::kSequence);
      WriteExtension(w, "2.5.29.35", false, AkiValue(KeyIdentifier(s.signingKey)));
      if (s.crlNumber)
        WriteExtension(w, "2.5.29.20", false,
                       Encode([&](DerWriter& v) { v.Integer(s.crlNumber->bytes); }));
      if (const auto& idp = s.issuingDistributionPoint) {
        // IssuingDistributionPoint ::= SEQUENCE { distributionPoint [0] OPTIONAL, ... }
        WriteExtension(w, "2.5.29.28", true, Encode([&](DerWriter& v) {
                         v.Begin(der::kSequence);
                         if (!idp->uris.empty()) WriteFullName(v, idp->uris);
                         v.End();
                       }));
      }
      w.End();
      w.End();
    }
    w.End();
  });
}

Bytes EntryExtensions(std::optional<int> reason, std::optional<time_t> invalidityDate) {
  return Encode([&](DerWriter& w) {
    w.Begin(der::kSequence);
    if (reason)
      WriteExtension(w, "2.5.29.21", false, Encode([&](DerWriter& v) { v.Enumerated(*reason); }));
    if (invalidityDate)
      WriteExtension(w, kOidInvalidityDate, false, GeneralizedTimeValue(*invalidityDate));
    w.End();
  });
}

// One revokedCertificates entry.
void WriteEntry(DerWriter& w, const Bytes& serial, time_t date, std::optional<int> reason,
                std::optional<time_t> invalidityDate) {
  w.Begin(der::kSequence);
  w.Integer(serial);
  w.Time(date);
  if (reason || invalidityDate) w.Raw(EntryExtensions(reason, invalidityDate));
  w.End();
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

// The serial of entry or absent serial |k|: a prefix from the seed, then a
// 64-bit mix of |k|. Listed serials have the top bit of octet 1 clear,
// absent ones set.
Serial LargeSerial(size_t k, uint64_t seed, bool absent) {
  const uint64_t prefix = Mix64(seed ^ 0x5175696C6C6F6E32ULL);
  const uint64_t low = Mix64(static_cast<uint64_t>(k) + prefix);
  Bytes b(16);
  for (int i = 0; i < 8; ++i) {
    b[static_cast<size_t>(i)] = static_cast<uint8_t>(prefix >> (56 - 8 * i));
    b[static_cast<size_t>(8 + i)] = static_cast<uint8_t>(low >> (56 - 8 * i));
  }
  b[0] = static_cast<uint8_t>((b[0] & 0x3F) | 0x40);  // positive, minimal
  b[1] = absent ? static_cast<uint8_t>(b[1] | 0x80) : static_cast<uint8_t>(b[1] & 0x7F);
  return Serial::FromBytes(std::move(b));
}

// keyCompromise, superseded, cessationOfOperation, affiliationChanged,
// certificateHold, privilegeWithdrawn.
constexpr int kLargeCrlReasons[] = {1, 4, 5, 3, 6, 9};

}  // namespace

// ---------------------------------------------------------------------------
// Keys.

Key MakeKey(KeyType type) {
  EVP_PKEY* p = type == KeyType::kRsa2048 ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256");
  if (p == nullptr) Fail("key generation");
  return Key(EvpPkeyPtr(p));
}

const Key& PooledKey(KeyType type, int slot) {
  static std::mutex mu;
  static std::map<std::pair<KeyType, int>, std::unique_ptr<Key>> pool;
  std::lock_guard<std::mutex> lock(mu);
  auto& entry = pool[{type, slot}];
  if (!entry) entry = std::make_unique<Key>(MakeKey(type));
  return *entry;
}

std::vector<uint8_t> KeyIdentifier(const Key& key) {
  OpenSslPtr<X509_PUBKEY, X509_PUBKEY_free> spki(
      FromDer(d2i_X509_PUBKEY, ToDer(i2d_PUBKEY, key.get(), "i2d_PUBKEY"), "X509_PUBKEY"));
  const unsigned char* bits = nullptr;
  int len = 0;
  if (!X509_PUBKEY_get0_param(nullptr, &bits, &len, nullptr, spki.get())) Fail("X509_PUBKEY");
  Bytes out(SHA_DIGEST_LENGTH);
  SHA1(bits, static_cast<size_t>(len), out.data());
  return out;
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

Serial Serial::FromUnsigned(uint64_t value) { return FromBytes(DerWriter::UnsignedContent(value)); }

Serial Serial::FromBytes(std::vector<uint8_t> raw) {
  Serial s;
  s.bytes = std::move(raw);
  return s;
}

Serial Serial::FromHex(const std::string& hex) { return FromBytes(Unhex(hex)); }

std::vector<uint8_t> Unhex(const std::string& hexIn) {
  const std::string hex = hexIn.size() % 2 ? "0" + hexIn : hexIn;
  const auto nibble = [&](char c) -> uint8_t {
    if (c >= '0' && c <= '9') return static_cast<uint8_t>(c - '0');
    if (c >= 'a' && c <= 'f') return static_cast<uint8_t>(c - 'a' + 10);
    if (c >= 'A' && c <= 'F') return static_cast<uint8_t>(c - 'A' + 10);
    Fail("bad hex: " + hexIn);
  };
  Bytes b;
  for (size_t i = 0; i < hex.size(); i += 2)
    b.push_back(static_cast<uint8_t>(nibble(hex[i]) << 4 | nibble(hex[i + 1])));
  return b;
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

// ---------------------------------------------------------------------------
// Names.

NameSpec Dn(std::initializer_list<std::pair<std::string, std::string>> attrs) {
  NameSpec out;
  for (const auto& [type, value] : attrs) out.push_back({Attr{type, value}});
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
  for (const auto& rdn : name) {
    std::vector<Bytes> atvs;
    for (const Attr& a : rdn) {
      const std::string dotted = DottedOid(a.type);
      atvs.push_back(Encode([&](DerWriter& aw) {
        aw.Begin(der::kSequence);
        aw.Oid(dotted);
        WriteAttrValue(aw, dotted, a.value);
        aw.End();
      }));
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
  return X509NamePtr(FromDer(d2i_X509_NAME, NameDer(name), "d2i_X509_NAME"));
}

// ---------------------------------------------------------------------------
// Certificates.

// TBSCertificate ::= SEQUENCE { version [0] EXPLICIT Version (v3),
//   serialNumber, signature AlgorithmIdentifier, issuer Name,
//   validity SEQUENCE { notBefore Time, notAfter Time }, subject Name,
//   subjectPublicKeyInfo, extensions [3] EXPLICIT Extensions }
X509Ptr MakeCert(const CertSpec& s) {
  if (!s.subjectKey) Fail("CertSpec.subjectKey is required");
  const Key& issuerKey = s.issuerKey ? s.issuerKey : s.subjectKey;
  const Bytes subject = NameDer(s.subject);
  const Bytes issuer =
      s.issuerCert ? NameDerOf(X509_get_subject_name(s.issuerCert)) : subject;
  Bytes authorityKeyId = KeyIdentifier(issuerKey);
  if (s.issuerCert) {
    const ASN1_OCTET_STRING* ski = X509_get0_subject_key_id(const_cast<X509*>(s.issuerCert));
    if (ski == nullptr) Fail("issuer certificate without subjectKeyIdentifier");
    authorityKeyId.assign(ASN1_STRING_get0_data(ski),
                          ASN1_STRING_get0_data(ski) + ASN1_STRING_length(ski));
  }

  const Bytes der = Signed(issuerKey, 0, [&](DerWriter& w, const Bytes& algId) {
    w.Begin(der::kSequence);
    w.Begin(der::CtxCons(0));
    w.Integer(2);
    w.End();
    w.Integer((s.serial.empty() ? RandomSerial() : s.serial).bytes);
    w.Raw(algId);
    w.Raw(issuer);
    w.Begin(der::kSequence);
    w.Time(s.notBefore);
    w.Time(s.notAfter);
    w.End();
    w.Raw(subject);
    w.Raw(ToDer(i2d_PUBKEY, s.subjectKey.get(), "i2d_PUBKEY"));
    w.Begin(der::CtxCons(3));
    w.Begin(der::kSequence);
    if (s.ca)  // BasicConstraints ::= SEQUENCE { cA BOOLEAN, ... }
      WriteExtension(w, "2.5.29.19", true, Encode([](DerWriter& v) {
                       v.Begin(der::kSequence);
                       v.Boolean(true);
                       v.End();
                     }));
    if (s.keyUsage)
      WriteExtension(w, "2.5.29.15", true,
                     Encode([&](DerWriter& v) { v.NamedBits(*s.keyUsage); }));
    if (!s.extKeyUsage.empty())
      WriteExtension(w, "2.5.29.37", false, Encode([&](DerWriter& v) {
                       v.Begin(der::kSequence);
                       for (const auto& p : s.extKeyUsage) v.Oid(DottedOid(p));
                       v.End();
                     }));
    WriteExtension(w, "2.5.29.14", false,
                   Encode([&](DerWriter& v) { v.OctetString(KeyIdentifier(s.subjectKey)); }));
    WriteExtension(w, "2.5.29.35", false, AkiValue(authorityKeyId));
    if (!s.crlDistributionPoints.empty())
      // CRLDistributionPoints ::= SEQUENCE OF SEQUENCE { distributionPoint [0] ... }
      WriteExtension(w, "2.5.29.31", false, Encode([&](DerWriter& v) {
                       v.Begin(der::kSequence);
                       for (const auto& dp : s.crlDistributionPoints) {
                         v.Begin(der::kSequence);
                         WriteFullName(v, dp.uris, dp.directoryNames);
                         v.End();
                       }
                       v.End();
                     }));
    if (!s.ocspUris.empty())
      // AuthorityInfoAccessSyntax ::= SEQUENCE OF SEQUENCE { accessMethod, accessLocation }
      WriteExtension(w, "1.3.6.1.5.5.7.1.1", false, Encode([&](DerWriter& v) {
                       v.Begin(der::kSequence);
                       for (const auto& uri : s.ocspUris) {
                         v.Begin(der::kSequence);
                         v.Oid("1.3.6.1.5.5.7.48.1");
                         v.Tlv(der::Ctx(6), uri);
                         v.End();
                       }
                       v.End();
                     }));
    for (const auto& e : s.extraExtensions)
      WriteExtension(w, DottedOid(e.oid), e.critical, e.value);
    w.End();
    w.End();
    w.End();
  });
  return ParseCert(der);
}

CertSpec RootCaSpec(const NameSpec& subject, const Key& key) {
  CertSpec s;
  s.subject = subject;
  s.subjectKey = key;
  s.notBefore = Now() - 30 * kDay;
  s.notAfter = Now() + 10 * 365 * kDay;
  s.ca = true;
  s.keyUsage = std::vector<int>{kKuKeyCertSign, kKuCrlSign};
  return s;
}

CertSpec LeafSpec(const NameSpec& subject, const Key& key, const X509* issuerCert,
                  const Key& issuerKey) {
  CertSpec s;
  s.subject = subject;
  s.subjectKey = key;
  s.issuerCert = issuerCert;
  s.issuerKey = issuerKey;
  s.keyUsage = std::vector<int>{kKuDigitalSignature, kKuNonRepudiation};
  return s;
}

X509Ptr MakeOcspResponderCert(const X509* caCert, const Key& caKey, const Key& responderKey) {
  CertSpec s = LeafSpec(TestName("Quillon Test OCSP Responder"), responderKey, caCert, caKey);
  s.keyUsage = std::vector<int>{kKuDigitalSignature};
  s.extKeyUsage = {kOidOcspSigning};
  return MakeCert(s);
}

std::vector<uint8_t> Der(const X509* cert) { return ToDer(i2d_X509, cert, "i2d_X509"); }

std::string Pem(const X509* cert) {
  OpenSslPtr<BIO, BIO_free_all> bio(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (!PEM_write_bio_X509(bio.get(), const_cast<X509*>(cert))) Fail("PEM_write_bio_X509");
  const long n = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(n));
}

X509Ptr ParseCert(const std::vector<uint8_t>& der) {
  return X509Ptr(FromDer(d2i_X509, der, "d2i_X509"));
}

std::vector<uint8_t> SignTbs(const std::vector<uint8_t>& tbs, const Key& key) {
  return Signed(key, tbs.size(), [&](DerWriter& w, const Bytes&) { w.Raw(tbs); });
}

std::vector<uint8_t> SignatureAlgorithmDer(const Key& key) {
  return AlgorithmIdOf(InitSign(key).get());
}

std::vector<uint8_t> LongFormLength(const std::vector<uint8_t>& der) {
  const size_t header = der[1] < 0x80 ? 2 : 2 + (der[1] & 0x7F), n = der.size() - header;
  Bytes ber(6 + n);
  ber[0] = der[0];
  ber[1] = 0x84;
  for (int i = 0; i < 4; ++i) ber[static_cast<size_t>(2 + i)] = static_cast<uint8_t>(n >> (24 - 8 * i));
  std::copy(der.begin() + static_cast<std::ptrdiff_t>(header), der.end(), ber.begin() + 6);
  return ber;
}

Pki MakePki(KeyType type) {
  Pki pki;
  const Key rootKey = MakeKey(type), leafKey = MakeKey(type);
  pki.intermediateKey = MakeKey(type);
  pki.root = MakeCert(RootCaSpec(TestName("Quillon Test Root CA"), rootKey));
  CertSpec mid = RootCaSpec(TestName("Quillon Test Intermediate CA"), pki.intermediateKey);
  mid.issuerCert = pki.root.get();
  mid.issuerKey = rootKey;
  pki.intermediate = MakeCert(mid);
  pki.leaf = MakeCert(LeafSpec(TestName("Quillon Test Leaf"), leafKey, pki.intermediate.get(),
                               pki.intermediateKey));
  return pki;
}

// ---------------------------------------------------------------------------
// CRLs.

std::vector<uint8_t> MakeCrlDer(const CrlSpec& s) {
  const bool v2 = s.version == 2;
  return BuildCrl(s, NameDer(TestName("Quillon Test CA")), s.revoked.size(),
                  s.revoked.size() * 64, [&](DerWriter& w) {
                    for (const RevokedSpec& r : s.revoked) {
                      WriteEntry(w, r.serial.bytes, r.revocationDate,
                                 v2 ? r.reason : std::nullopt, std::nullopt);
                    }
                  });
}

Serial LargeCrlSerial(size_t index, uint64_t seed) { return LargeSerial(index, seed, false); }

Serial LargeCrlAbsentSerial(size_t k, uint64_t seed) { return LargeSerial(k, seed, true); }

std::vector<uint8_t> MakeLargeCrl(const Key& issuerKey, const NameSpec& issuer, size_t entries,
                                  uint64_t seed) {
  static const time_t kBase = UtcTime(2020, 1, 1);
  const auto write_entries = [&](DerWriter& w) {
    for (size_t i = 0; i < entries; ++i) {
      const time_t date =
          kBase + static_cast<time_t>(Mix64(i ^ (seed * 0x9E3779B97F4A7C15ULL)) % (3 * 365 * kDay));
      std::optional<int> reason;
      if (i % 3 == 0) reason = kLargeCrlReasons[(i / 3) % std::size(kLargeCrlReasons)];
      std::optional<time_t> invalidity;
      if (i % 100000 == 1) invalidity = date - kDay;
      WriteEntry(w, LargeCrlSerial(i, seed).bytes, date, reason, invalidity);
    }
  };
  return BuildCrl(CrlSpec{.signingKey = issuerKey}, NameDer(issuer), entries, entries * 48,
                  write_entries);
}

// ---------------------------------------------------------------------------
// OCSP.

std::vector<uint8_t> MakeOcspDer(const OcspSpec& s) {
  if (s.signerCert == nullptr || !s.signerKey) Fail("OcspSpec.signerCert and signerKey required");
  OpenSslPtr<OCSP_BASICRESP, OCSP_BASICRESP_free> bs(OCSP_BASICRESP_new());
  if (!bs) Fail("OCSP_BASICRESP_new");
  const auto time = [](time_t t) {
    return OpenSslPtr<ASN1_TIME, ASN1_TIME_free>(
        FromDer(d2i_ASN1_TIME, GeneralizedTimeValue(t), "ASN1_TIME"));
  };
  for (const SingleResponseSpec& r : s.responses) {
    if (r.issuerCert == nullptr) Fail("SingleResponseSpec.issuerCert is required");
    OpenSslPtr<ASN1_INTEGER, ASN1_INTEGER_free> serial(
        FromDer(d2i_ASN1_INTEGER, Encode([&](DerWriter& w) { w.Integer(r.serial.bytes); }),
                "serial " + Hex(r.serial.bytes) + " is not a minimal DER INTEGER"));
    OpenSslPtr<OCSP_CERTID, OCSP_CERTID_free> id(
        OCSP_cert_id_new(EVP_sha1(), X509_get_subject_name(r.issuerCert),
                         X509_get0_pubkey_bitstr(r.issuerCert), serial.get()));
    if (!id) Fail("OCSP_cert_id_new");
    const bool revoked = r.status == CertStatus::kRevoked;
    const int status = revoked                             ? V_OCSP_CERTSTATUS_REVOKED
                       : r.status == CertStatus::kUnknown ? V_OCSP_CERTSTATUS_UNKNOWN
                                                          : V_OCSP_CERTSTATUS_GOOD;
    OCSP_SINGLERESP* single = OCSP_basic_add1_status(
        bs.get(), id.get(), status,
        revoked && r.reason ? *r.reason : OCSP_REVOKED_STATUS_NOSTATUS,
        revoked ? time(r.revocationTime).get() : nullptr, time(r.thisUpdate).get(),
        r.nextUpdate ? time(*r.nextUpdate).get() : nullptr);
    if (single == nullptr) Fail("OCSP_basic_add1_status");
    if (r.invalidityDate) {
      OpenSslPtr<X509_EXTENSION, X509_EXTENSION_free> ext(
          FromDer(d2i_X509_EXTENSION, Encode([&](DerWriter& w) {
                    WriteExtension(w, kOidInvalidityDate, false,
                                   GeneralizedTimeValue(*r.invalidityDate));
                  }),
                  "invalidityDate"));
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

  unsigned long flags = OCSP_NOCERTS | OCSP_NOTIME;
  if (s.responderId == ResponderIdType::kByKey) flags |= OCSP_RESPID_KEY;
  EvpMdCtxPtr ctx = InitSign(s.signerKey);
  if (!OCSP_basic_sign_ctx(bs.get(), const_cast<X509*>(s.signerCert), ctx.get(), nullptr, flags))
    Fail("OCSP_basic_sign_ctx");
  if (s.signWithKey) {
    // OCSP_basic_sign_ctx insists on the responder's own key; sign the same
    // ResponseData again with the other key.
    EvpMdCtxPtr wrong = InitSign(s.signWithKey);
    if (ASN1_item_sign_ctx(ASN1_ITEM_rptr(OCSP_RESPDATA),
                           const_cast<X509_ALGOR*>(OCSP_resp_get0_tbs_sigalg(bs.get())), nullptr,
                           const_cast<ASN1_BIT_STRING*>(OCSP_resp_get0_signature(bs.get())),
                           const_cast<OCSP_RESPDATA*>(OCSP_resp_get0_respdata(bs.get())),
                           wrong.get()) <= 0)
      Fail("signing with the other key");
  }
  OpenSslPtr<OCSP_RESPONSE, OCSP_RESPONSE_free> resp(
      OCSP_response_create(OCSP_RESPONSE_STATUS_SUCCESSFUL, bs.get()));
  if (!resp) Fail("OCSP_response_create");
  return ToDer(i2d_OCSP_RESPONSE, resp.get(), "i2d_OCSP_RESPONSE");
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
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

void WriteFile(const std::string& path, const std::string& text) {
  WriteFile(path, Bytes(text.begin(), text.end()));
}

std::string TestDataPath(const std::string& relative) {
  const std::string base = QUILLON_TESTDATA_DIR;
  return relative.empty() ? base : base + "/" + relative;
}

TempDir::TempDir() {
  const char* tmp = getenv("TMPDIR");
  std::string tmpl = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") + "/quillon-test-XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp " + tmpl);
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::string TempDir::File(const std::string& name) const { return path_ + "/" + name; }

}  // namespace quillon::testing
