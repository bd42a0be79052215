// Test-support PKI factory: keys, certificates, CRLs and OCSP responses made in
// memory with OpenSSL 3 libcrypto, for the tests and the benchmarks. It never
// uses the library under test, so its output can judge the library.
//
// Every Make* function throws std::runtime_error (with OpenSSL's error text)
// when something cannot be built; inside a test that fails the test with the
// reason. Times are UTC seconds (time_t).
//
// Typical use:
//   Pki pki = MakePki(KeyType::kEcP256);
//   auto crl = MakeCrlDer({.issuerCert = pki.intermediate.get(),
//                          .signingKey = pki.intermediateKey,
//                          .revoked = {{.serial = Serial(42), .revocationDate = Now() - kDay,
//                                       .reason = kReasonKeyCompromise}}});
#pragma once

#include <openssl/evp.h>
#include <openssl/ocsp.h>
#include <openssl/x509.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quillon::testing {

// ---------------------------------------------------------------------------
// RAII wrappers around OpenSSL objects.

struct EvpPkeyDeleter { void operator()(EVP_PKEY* p) const noexcept { EVP_PKEY_free(p); } };
struct X509Deleter { void operator()(X509* p) const noexcept { X509_free(p); } };
struct X509CrlDeleter { void operator()(X509_CRL* p) const noexcept { X509_CRL_free(p); } };
struct X509NameDeleter { void operator()(X509_NAME* p) const noexcept { X509_NAME_free(p); } };
struct X509StoreDeleter { void operator()(X509_STORE* p) const noexcept { X509_STORE_free(p); } };
struct OcspResponseDeleter { void operator()(OCSP_RESPONSE* p) const noexcept { OCSP_RESPONSE_free(p); } };
struct OcspBasicDeleter { void operator()(OCSP_BASICRESP* p) const noexcept { OCSP_BASICRESP_free(p); } };
struct EvpMdCtxDeleter { void operator()(EVP_MD_CTX* p) const noexcept { EVP_MD_CTX_free(p); } };

using EvpPkeyPtr = std::unique_ptr<EVP_PKEY, EvpPkeyDeleter>;
using X509Ptr = std::unique_ptr<X509, X509Deleter>;
using X509CrlPtr = std::unique_ptr<X509_CRL, X509CrlDeleter>;
using X509NamePtr = std::unique_ptr<X509_NAME, X509NameDeleter>;
using X509StorePtr = std::unique_ptr<X509_STORE, X509StoreDeleter>;
using OcspResponsePtr = std::unique_ptr<OCSP_RESPONSE, OcspResponseDeleter>;
using OcspBasicPtr = std::unique_ptr<OCSP_BASICRESP, OcspBasicDeleter>;
using EvpMdCtxPtr = std::unique_ptr<EVP_MD_CTX, EvpMdCtxDeleter>;

// ---------------------------------------------------------------------------
// Keys.

enum class KeyType { kRsa2048, kEcP256, kEcP384, kEcP521, kBrainpoolP256r1 };
const char* KeyTypeName(KeyType type);

// A key pair. Copies share the same EVP_PKEY (reference-counted); keys are
// never modified after generation. An empty Key means "not given".
class Key {
 public:
  Key() = default;
  Key(EvpPkeyPtr pkey, KeyType type) : pkey_(std::move(pkey)), type_(type) {}
  Key(const Key& other);
  Key& operator=(const Key& other);
  Key(Key&&) noexcept = default;
  Key& operator=(Key&&) noexcept = default;

  EVP_PKEY* get() const { return pkey_.get(); }
  explicit operator bool() const { return pkey_ != nullptr; }
  KeyType type() const { return type_; }

 private:
  EvpPkeyPtr pkey_;
  KeyType type_ = KeyType::kEcP256;
};

// A newly generated key (slow for RSA: a few hundred milliseconds).
Key FreshKey(KeyType type);
// The key in a process-wide pool slot, generated on first use; the same slot
// always gives the same key. Thread-safe; the reference stays valid.
const Key& PooledKey(KeyType type, int slot);
// RSA: the pooled keys in turn (kRsaPoolSize slots, so any kRsaPoolSize
// consecutive calls give distinct keys); EC: a fresh key.
inline constexpr int kRsaPoolSize = 8;
Key MakeKey(KeyType type);

// DER SubjectPublicKeyInfo of the key.
std::vector<uint8_t> PublicKeyDer(const Key& key);
// SHA-1 of the subjectPublicKey BIT STRING value (RFC 5280 4.2.1.2 method 1);
// what "auto" key identifiers use.
std::vector<uint8_t> KeyIdentifier(const Key& key);
// PKCS#8 PEM of the private key.
std::string PrivateKeyPem(const Key& key);

// ---------------------------------------------------------------------------
// Times.

inline constexpr time_t kMinute = 60;
inline constexpr time_t kHour = 3600;
inline constexpr time_t kDay = 86400;
time_t Now();
// A UTC calendar time (timegm).
time_t UtcTime(int year, int month, int day, int hour = 0, int minute = 0, int second = 0);

// ---------------------------------------------------------------------------
// Integers (serial numbers, CRL numbers).

// The content octets of a DER INTEGER: big-endian two's complement. Built from
// an integer (minimal encoding) or given as raw bytes (written as they are in
// CRLs; in certificates and OCSP CertIDs they must be a minimal encoding, which
// OpenSSL requires). An empty Serial means "choose one" where allowed.
struct Serial {
  std::vector<uint8_t> bytes;

  Serial() = default;
  Serial(long long value);  // NOLINT: implicit on purpose, Serial(5) or = 5
  static Serial FromInt(long long value) { return Serial(value); }
  static Serial FromUnsigned(uint64_t value);
  // Raw content octets, e.g. {0x00, 0x80, ...} (leading sign byte) or
  // {0xFF, ...} (negative).
  static Serial FromBytes(std::vector<uint8_t> raw);
  // Big-endian hexadecimal text (case and an optional "0x" ignored) taken as
  // raw content octets; an odd number of digits gets a leading 0.
  static Serial FromHex(const std::string& hex);
  bool empty() const { return bytes.empty(); }
  bool operator==(const Serial&) const = default;
};

// Upper-case hexadecimal of bytes, no separators.
std::string Hex(const std::vector<uint8_t>& bytes);
// Raw content octets of a certificate's serial number.
Serial SerialOf(const X509* cert);

// ---------------------------------------------------------------------------
// Distinguished names.

enum class StrType {
  kDefault,    // PrintableString for C, serialNumber and dnQualifier; IA5String
               // for emailAddress and DC; UTF8String otherwise
  kUtf8,       // UTF8String: the value as given (UTF-8)
  kPrintable,  // PrintableString: the value's bytes as given
  kIa5,        // IA5String: as given
  kBmp,        // BMPString: the UTF-8 value converted to UCS-2 big-endian
  kT61,        // T61String (TeletexString): the value's bytes as given
  kUniversal,  // UniversalString: the UTF-8 value converted to UCS-4 big-endian
};

// One attribute: type as a short or long name known to OpenSSL ("CN",
// "organizationName") or dotted OID ("2.5.4.3"), the value (UTF-8 text) and
// its string type.
struct Attr {
  std::string type{};
  std::string value{};
  StrType strType = StrType::kDefault;
};
// One RDN: a SET of attributes; more than one makes a multi-valued RDN
// ("CN=a+serialNumber=1"). Written in DER order (sorted encodings).
using Rdn = std::vector<Attr>;
// A Name: the RDN sequence, most significant first (C, O, ..., CN).
using NameSpec = std::vector<Rdn>;

// One single-valued RDN per pair, default string types:
// Dn({{"C", "IT"}, {"O", "Example"}, {"CN", "Root"}}).
NameSpec Dn(std::initializer_list<std::pair<std::string, std::string>> attrs);
// C=IT, O=Quillon32 Test PKI, CN=<cn>.
NameSpec TestName(const std::string& cn);
// DER of a Name.
std::vector<uint8_t> NameDer(const NameSpec& name);
X509NamePtr MakeX509Name(const NameSpec& name);
// One-line text of an OpenSSL name (XN_FLAG_RFC2253, UTF-8), for messages.
std::string NameText(const X509_NAME* name);

// ---------------------------------------------------------------------------
// Extensions and signatures shared by certificates, CRLs and OCSP.

enum class Digest { kSha1, kSha256, kSha384, kSha512 };
const EVP_MD* DigestMd(Digest digest);

// An extension given as it should be written: OID (dotted or short name),
// critical flag and the DER extnValue content (the bytes inside the OCTET
// STRING).
struct RawExtension {
  std::string oid{};
  bool critical = false;
  std::vector<uint8_t> value{};
};

// keyUsage bit numbers (RFC 5280 4.2.1.3).
inline constexpr int kKuDigitalSignature = 0;
inline constexpr int kKuNonRepudiation = 1;
inline constexpr int kKuKeyEncipherment = 2;
inline constexpr int kKuDataEncipherment = 3;
inline constexpr int kKuKeyAgreement = 4;
inline constexpr int kKuKeyCertSign = 5;
inline constexpr int kKuCrlSign = 6;
inline constexpr int kKuEncipherOnly = 7;
inline constexpr int kKuDecipherOnly = 8;

// CRLReason values (RFC 5280 5.3.1); also the bit numbers of ReasonFlags.
inline constexpr int kReasonUnspecified = 0;
inline constexpr int kReasonKeyCompromise = 1;
inline constexpr int kReasonCaCompromise = 2;
inline constexpr int kReasonAffiliationChanged = 3;
inline constexpr int kReasonSuperseded = 4;
inline constexpr int kReasonCessationOfOperation = 5;
inline constexpr int kReasonCertificateHold = 6;
inline constexpr int kReasonRemoveFromCrl = 8;
inline constexpr int kReasonPrivilegeWithdrawn = 9;
inline constexpr int kReasonAaCompromise = 10;

// OIDs the tests commonly need.
inline constexpr const char* kOidOcspSigning = "1.3.6.1.5.5.7.3.9";
inline constexpr const char* kOidServerAuth = "1.3.6.1.5.5.7.3.1";
inline constexpr const char* kOidClientAuth = "1.3.6.1.5.5.7.3.2";
inline constexpr const char* kOidEmailProtection = "1.3.6.1.5.5.7.3.4";
inline constexpr const char* kOidTimeStamping = "1.3.6.1.5.5.7.3.8";
inline constexpr const char* kOidExpiredCertsOnCrl = "2.5.29.60";
inline constexpr const char* kOidInvalidityDate = "2.5.29.24";
inline constexpr const char* kOidOcspCrlId = "1.3.6.1.5.5.7.48.1.3";

struct KeyUsageSpec {
  std::vector<int> bits{};  // kKu* bit numbers
  bool critical = true;
};

struct BasicConstraintsSpec {
  bool ca = false;
  std::optional<long> pathLen{};
  bool critical = true;
};

enum class KeyIdMode {
  kAuto,    // computed (from the key, or the issuer certificate's SKI)
  kGiven,   // the bytes given
  kAbsent,  // no extension
};

struct SubjectKeyIdSpec {
  KeyIdMode mode = KeyIdMode::kAuto;
  std::vector<uint8_t> keyId{};  // for kGiven
  bool critical = false;
};

struct AuthorityKeyIdSpec {
  KeyIdMode mode = KeyIdMode::kAuto;
  std::vector<uint8_t> keyId{};  // for kGiven
  // Adds authorityCertIssuer (the issuer certificate's issuer name) and
  // authorityCertSerialNumber (its serial); needs CertSpec/CrlSpec issuerCert,
  // or a self-signed certificate (its own names and serial).
  bool withIssuerAndSerial = false;
  bool omitKeyId = false;  // only issuer and serial
  bool critical = false;
};

// One DistributionPoint of cRLDistributionPoints.
struct DistPointSpec {
  std::vector<std::string> uris{};          // fullName uniformResourceIdentifiers
  std::vector<NameSpec> directoryNames{};   // fullName directoryNames (after the URIs)
  std::optional<Rdn> relativeName{};        // nameRelativeToCRLIssuer instead of fullName
  std::vector<int> reasons{};               // ReasonFlags bits; empty = absent
  std::vector<NameSpec> crlIssuer{};        // cRLIssuer directoryNames; empty = absent
};

// ---------------------------------------------------------------------------
// Certificates.

struct CertSpec {
  NameSpec subject = TestName("Quillon Test Certificate");
  // Issuer name; ignored when issuerCert is set (its subject is used); empty
  // means the subject (self-issued).
  NameSpec issuer{};
  const X509* issuerCert = nullptr;

  Key subjectKey{};   // required: the public key certified
  Key issuerKey{};    // empty: subjectKey (self-signed)
  Key signWithKey{};  // empty: issuerKey; another key makes a wrong signature

  Serial serial{};    // empty: 16 random bytes (positive)
  int version = 3;  // 1, 2 or 3; extensions are written only for version 3
  time_t notBefore = Now() - kDay;
  time_t notAfter = Now() + 365 * kDay;
  bool forceGeneralizedTime = false;  // GeneralizedTime even before 2050

  Digest digest = Digest::kSha256;
  bool rsaPss = false;  // RSASSA-PSS (MGF1 with the same digest, salt = digest length)

  // Extensions, written in this order.
  std::optional<BasicConstraintsSpec> basicConstraints{};
  std::optional<KeyUsageSpec> keyUsage{};
  std::vector<std::string> extKeyUsage{};  // OIDs or short names ("OCSPSigning")
  bool extKeyUsageCritical = false;
  SubjectKeyIdSpec subjectKeyId{};
  AuthorityKeyIdSpec authorityKeyId{};
  std::vector<DistPointSpec> crlDistributionPoints{};
  bool crlDistributionPointsCritical = false;
  std::vector<std::string> ocspUris{};       // authorityInfoAccess id-ad-ocsp
  std::vector<std::string> caIssuersUris{};  // authorityInfoAccess id-ad-caIssuers
  bool ocspNoCheck = false;                // id-pkix-ocsp-nocheck
  std::vector<RawExtension> extraExtensions{};
};

X509Ptr MakeCert(const CertSpec& spec);

// Shorthands for the usual shapes (edit the returned spec as needed).
// A self-signed root CA: basicConstraints CA, keyUsage keyCertSign+cRLSign.
CertSpec RootCaSpec(const NameSpec& subject, const Key& key);
// A CA signed by issuer: basicConstraints CA (pathLen given or none),
// keyUsage keyCertSign+cRLSign.
CertSpec SubCaSpec(const NameSpec& subject, const Key& key, const X509* issuerCert,
                   const Key& issuerKey, std::optional<long> pathLen = std::nullopt);
// An end-entity certificate: keyUsage digitalSignature+nonRepudiation.
CertSpec LeafSpec(const NameSpec& subject, const Key& key, const X509* issuerCert,
                  const Key& issuerKey);
// A delegated OCSP responder certificate issued by the CA, with or without
// id-kp-OCSPSigning, keyUsage digitalSignature.
X509Ptr MakeOcspResponderCert(const X509* caCert, const Key& caKey, const Key& responderKey,
                              bool withOcspSigningEku = true,
                              const NameSpec& subject = TestName("Quillon Test OCSP Responder"));

std::vector<uint8_t> Der(const X509* cert);
std::string Pem(const X509* cert);
X509Ptr ParseCert(const std::vector<uint8_t>& der);
// A copy sharing the object (X509_up_ref).
X509Ptr Ref(const X509* cert);
// DER of the TBSCertificate as encoded in the certificate.
std::vector<uint8_t> TbsDer(const X509* cert);
// Signs any to-be-signed bytes and wraps them as SEQUENCE { tbs,
// signatureAlgorithm, signature } (a Certificate, CertificateList or other
// SIGNED{} structure); the AlgorithmIdentifier is the one of key/digest/pss.
// Lets a test alter a TBS and sign the result.
std::vector<uint8_t> SignTbs(const std::vector<uint8_t>& tbs, const Key& key,
                             Digest digest = Digest::kSha256, bool rsaPss = false);
// The DER AlgorithmIdentifier of signatures made with key/digest/pss.
std::vector<uint8_t> SignatureAlgorithmDer(const Key& key, Digest digest = Digest::kSha256,
                                           bool rsaPss = false);

// Root -> intermediate -> leaf in one call.
struct PkiOptions {
  std::string rootCn = "Quillon Test Root CA";
  std::string intermediateCn = "Quillon Test Intermediate CA";
  std::string leafCn = "Quillon Test Leaf";
  // cRLDistributionPoints of the intermediate (root's CRL) and of the leaf
  // (intermediate's CRL); empty = none.
  std::string rootCrlUri = "http://127.0.0.1/crl/root.crl";
  std::string intermediateCrlUri = "http://127.0.0.1/crl/intermediate.crl";
  std::string ocspUri = "http://127.0.0.1/ocsp";  // leaf AIA; empty = none
  time_t notBefore = Now() - 30 * kDay;
  time_t notAfter = Now() + 365 * kDay;
  Digest digest = Digest::kSha256;
};

struct Pki {
  KeyType type = KeyType::kEcP256;
  Key rootKey{}, intermediateKey{}, leafKey{};
  X509Ptr root{}, intermediate{}, leaf{};
};

Pki MakePki(KeyType type, const PkiOptions& options = {});

// ---------------------------------------------------------------------------
// CRLs.

struct RevokedSpec {
  Serial serial = 1;
  time_t revocationDate = Now() - kDay;
  std::optional<int> reason{};                // reasonCode entry extension
  std::optional<time_t> invalidityDate{};     // invalidityDate entry extension
  std::vector<RawExtension> extensions{};     // after reason and invalidityDate
};

// issuingDistributionPoint (RFC 5280 5.2.5).
struct IdpSpec {
  std::vector<std::string> uris{};  // distributionPoint fullName URIs; empty = absent
  bool onlyContainsUserCerts = false;
  bool onlyContainsCaCerts = false;
  std::vector<int> onlySomeReasons{};  // ReasonFlags bits; empty = absent
  bool indirectCrl = false;
  bool onlyContainsAttributeCerts = false;
  bool critical = true;
};

struct CrlSpec {
  // Issuer: the subject of issuerCert when set, else issuer.
  const X509* issuerCert = nullptr;
  NameSpec issuer = TestName("Quillon Test CA");

  Key signingKey{};   // required: the issuer's key
  Key signWithKey{};  // empty: signingKey; another key makes a wrong signature

  int version = 2;  // 1: no version field and no extensions at all
  time_t thisUpdate = Now() - kHour;
  std::optional<time_t> nextUpdate = Now() + 7 * kDay;  // nullopt: absent
  bool forceGeneralizedTime = false;  // for this/nextUpdate and revocation dates
  Digest digest = Digest::kSha256;
  bool rsaPss = false;

  std::vector<RevokedSpec> revoked{};  // written in this order; none: field absent

  // CRL extensions, written in this order.
  AuthorityKeyIdSpec authorityKeyId{};   // auto: issuerCert's SKI, else the key's id
  std::optional<Serial> crlNumber = Serial(1);
  std::optional<IdpSpec> issuingDistributionPoint{};
  std::optional<time_t> expiredCertsOnCrl{};  // GeneralizedTime value
  std::vector<RawExtension> extensions{};
};

std::vector<uint8_t> MakeCrlDer(const CrlSpec& spec);
X509CrlPtr MakeCrl(const CrlSpec& spec);  // MakeCrlDer parsed by OpenSSL

std::vector<uint8_t> Der(const X509_CRL* crl);
std::string Pem(const X509_CRL* crl);
X509CrlPtr ParseCrl(const std::vector<uint8_t>& der);

// Huge CRLs, encoded directly (entries in index order, not sorted), for
// benchmarks. Entry i is LargeCrlEntry(i, seed): a unique 16-byte serial,
// a revocation date in 2020-2022, a reasonCode for every third entry
// (i % 3 == 0) and an invalidityDate when i % 100000 == 1.
struct LargeCrlOptions {
  time_t thisUpdate = 0;  // 0: now - 1 hour
  time_t nextUpdate = 0;  // 0: thisUpdate + 7 days
  Digest digest = Digest::kSha256;
  bool authorityKeyId = true;  // AKI with the key's identifier
  std::optional<uint64_t> crlNumber = 1;
};

struct CrlEntryInfo {
  Serial serial{};
  time_t revocationDate = 0;
  std::optional<int> reason{};
  std::optional<time_t> invalidityDate{};
};

std::vector<uint8_t> MakeLargeCrl(const Key& issuerKey, const NameSpec& issuer, size_t entries,
                                  uint64_t seed, const LargeCrlOptions& options = {});
CrlEntryInfo LargeCrlEntry(size_t index, uint64_t seed);
Serial LargeCrlSerial(size_t index, uint64_t seed);
// A serial that is on no CRL made with this seed, whatever its size; distinct
// for distinct k.
Serial LargeCrlAbsentSerial(size_t k, uint64_t seed);

// ---------------------------------------------------------------------------
// OCSP responses.

enum class OcspResponseStatus {
  kSuccessful = 0,
  kMalformedRequest = 1,
  kInternalError = 2,
  kTryLater = 3,
  kSigRequired = 5,
  kUnauthorized = 6,
};

enum class CertStatus { kGood, kRevoked, kUnknown };

enum class ResponderIdType { kByName, kByKey };

struct SingleResponseSpec {
  const X509* issuerCert = nullptr;  // required: CertID issuer name and key hashes
  Serial serial = 1;
  Digest certIdHash = Digest::kSha1;
  CertStatus status = CertStatus::kGood;
  time_t revocationTime = Now() - kDay;  // for kRevoked
  std::optional<int> reason{};             // for kRevoked
  time_t thisUpdate = Now() - kHour;
  std::optional<time_t> nextUpdate = Now() + kDay;  // nullopt: absent
  std::optional<time_t> invalidityDate{};  // singleExtensions invalidityDate
  std::vector<RawExtension> extensions{};  // after invalidityDate
};

struct OcspSpec {
  // Not kSuccessful: an OCSPResponse without responseBytes.
  OcspResponseStatus responseStatus = OcspResponseStatus::kSuccessful;
  std::vector<SingleResponseSpec> responses{};
  time_t producedAt = Now();

  // The responder: its certificate (named by responderID) and its key. The CA
  // itself (signerCert = CA certificate) or a delegated responder.
  const X509* signerCert = nullptr;
  Key signerKey{};
  Key signWithKey{};  // empty: signerKey; an unrelated key makes a wrong signature
  ResponderIdType responderId = ResponderIdType::kByName;
  // The certs field, in order (e.g. the delegated responder certificate);
  // empty: absent.
  std::vector<const X509*> certs{};
  Digest digest = Digest::kSha256;
  bool rsaPss = false;
  std::optional<std::vector<uint8_t>> nonce{};  // id-pkix-ocsp-nonce
};

OcspResponsePtr MakeOcsp(const OcspSpec& spec);
std::vector<uint8_t> MakeOcspDer(const OcspSpec& spec);

std::vector<uint8_t> Der(const OCSP_RESPONSE* response);
OcspResponsePtr ParseOcsp(const std::vector<uint8_t>& der);

// ---------------------------------------------------------------------------
// Files.

// The whole file; throws when it cannot be read.
std::vector<uint8_t> ReadFile(const std::string& path);
void WriteFile(const std::string& path, const std::vector<uint8_t>& bytes);
void WriteFile(const std::string& path, const std::string& text);
// <QUILLON_TESTDATA_DIR>/<relative> (the shared third-party test data).
std::string TestDataPath(const std::string& relative);

// A new empty directory (mkdtemp under $TMPDIR or /tmp), removed with its
// contents on destruction.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& path() const { return path_; }
  // path() + "/" + name
  std::string File(const std::string& name) const;

 private:
  std::string path_;
};

}  // namespace quillon::testing
