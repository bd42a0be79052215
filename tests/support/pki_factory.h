// Test-support PKI factory: keys, certificates, CRLs and OCSP responses made in
// memory with OpenSSL 3 libcrypto, for the tests and the benchmarks. It never
// uses the library under test, so its output can judge the library.
//
// Every Make* function throws std::runtime_error (with OpenSSL's error text)
// when something cannot be built; inside a test that fails the test with the
// reason. Times are UTC seconds (time_t); signatures use SHA-256.
#pragma once

#include <openssl/evp.h>
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

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
  void operator()(T* p) const noexcept { Free(p); }
};
template <typename T, void (*Free)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter<T, Free>>;

using EvpPkeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using X509Ptr = OpenSslPtr<X509, X509_free>;
using X509NamePtr = OpenSslPtr<X509_NAME, X509_NAME_free>;
using X509StorePtr = OpenSslPtr<X509_STORE, X509_STORE_free>;
using EvpMdCtxPtr = OpenSslPtr<EVP_MD_CTX, EVP_MD_CTX_free>;

// ---------------------------------------------------------------------------
// Keys.

enum class KeyType { kRsa2048, kEcP256 };

// A key pair. Copies share the same EVP_PKEY; keys are never modified after
// generation. An empty Key means "not given".
class Key {
 public:
  Key() = default;
  explicit Key(EvpPkeyPtr pkey) : pkey_(pkey.release(), EVP_PKEY_free) {}

  EVP_PKEY* get() const { return pkey_.get(); }
  explicit operator bool() const { return pkey_ != nullptr; }

 private:
  std::shared_ptr<EVP_PKEY> pkey_;
};

// A newly generated key (slow for RSA: a few hundred milliseconds).
Key MakeKey(KeyType type);
// The key in a process-wide pool slot, generated on first use; the same slot
// always gives the same key. Thread-safe; the reference stays valid.
const Key& PooledKey(KeyType type, int slot);
// SHA-1 of the subjectPublicKey BIT STRING value (RFC 5280 4.2.1.2 method 1);
// what the key identifiers of made certificates and CRLs hold.
std::vector<uint8_t> KeyIdentifier(const Key& key);

// ---------------------------------------------------------------------------
// Times.

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
  static Serial FromUnsigned(uint64_t value);
  // Raw content octets, e.g. {0x00, 0x80, ...} (leading sign byte) or
  // {0xFF, ...} (negative).
  static Serial FromBytes(std::vector<uint8_t> raw);
  // Big-endian hexadecimal text (either case) taken as raw content octets; an
  // odd number of digits gets a leading 0.
  static Serial FromHex(const std::string& hex);
  bool empty() const { return bytes.empty(); }
};

// Upper-case hexadecimal of bytes, no separators.
std::string Hex(const std::vector<uint8_t>& bytes);
// The bytes of hexadecimal text (either case); an odd number of digits gets a
// leading 0.
std::vector<uint8_t> Unhex(const std::string& hex);

// ---------------------------------------------------------------------------
// Distinguished names.

// One attribute: type as a short or long name known to OpenSSL ("CN",
// "organizationName") or dotted OID ("2.5.4.3") and the value (UTF-8 text),
// written as PrintableString for C, serialNumber and dnQualifier, IA5String
// for emailAddress and DC, UTF8String otherwise.
struct Attr {
  std::string type{};
  std::string value{};
};
// A Name: the RDN sequence, most significant first (C, O, ..., CN). An RDN
// of more than one attribute is multi-valued ("CN=a+O=b"), written in DER
// order (sorted encodings).
using NameSpec = std::vector<std::vector<Attr>>;

// One single-valued RDN per pair, default string types:
// Dn({{"C", "IT"}, {"O", "Example"}, {"CN", "Root"}}).
NameSpec Dn(std::initializer_list<std::pair<std::string, std::string>> attrs);
// C=IT, O=Quillon32 Test PKI, CN=<cn>.
NameSpec TestName(const std::string& cn);
// DER of a Name.
std::vector<uint8_t> NameDer(const NameSpec& name);
X509NamePtr MakeX509Name(const NameSpec& name);

// ---------------------------------------------------------------------------
// Certificates.

// keyUsage bit numbers (RFC 5280 4.2.1.3).
inline constexpr int kKuDigitalSignature = 0;
inline constexpr int kKuNonRepudiation = 1;
inline constexpr int kKuKeyCertSign = 5;
inline constexpr int kKuCrlSign = 6;

inline constexpr const char* kOidOcspSigning = "1.3.6.1.5.5.7.3.9";

// One DistributionPoint of cRLDistributionPoints: a fullName of URIs, then
// directory names.
struct DistPointSpec {
  std::vector<std::string> uris{};
  std::vector<NameSpec> directoryNames{};
};

// An extension written as given: OID (dotted or short name), critical flag
// and the extnValue content (the bytes inside the OCTET STRING).
struct RawExtension {
  std::string oid{};
  bool critical = false;
  std::vector<uint8_t> value{};
};

// A v3 certificate. Extensions are written in this order: basicConstraints
// (critical, for a CA), keyUsage, extKeyUsage, subjectKeyIdentifier (the
// key's identifier), authorityKeyIdentifier (the issuer certificate's subject
// key identifier, or the signing key's), cRLDistributionPoints,
// authorityInfoAccess, then the extra ones.
struct CertSpec {
  NameSpec subject = TestName("Quillon Test Certificate");
  const X509* issuerCert = nullptr;  // null: self-signed

  Key subjectKey{};  // required: the public key certified
  Key issuerKey{};   // empty: subjectKey (self-signed)

  Serial serial{};  // empty: 16 random bytes (positive)
  time_t notBefore = Now() - kDay;
  time_t notAfter = Now() + 365 * kDay;

  bool ca = false;
  std::optional<std::vector<int>> keyUsage{};  // kKu* bit numbers; critical
  std::vector<std::string> extKeyUsage{};  // OIDs
  std::vector<DistPointSpec> crlDistributionPoints{};
  std::vector<std::string> ocspUris{};  // authorityInfoAccess id-ad-ocsp
  std::vector<RawExtension> extraExtensions{};
};

X509Ptr MakeCert(const CertSpec& spec);

// A self-signed root CA: basicConstraints CA, keyUsage keyCertSign+cRLSign.
CertSpec RootCaSpec(const NameSpec& subject, const Key& key);
// An end-entity certificate: keyUsage digitalSignature+nonRepudiation.
CertSpec LeafSpec(const NameSpec& subject, const Key& key, const X509* issuerCert,
                  const Key& issuerKey);
// A delegated OCSP responder certificate issued by the CA: keyUsage
// digitalSignature, extKeyUsage id-kp-OCSPSigning.
X509Ptr MakeOcspResponderCert(const X509* caCert, const Key& caKey, const Key& responderKey);

std::vector<uint8_t> Der(const X509* cert);
std::string Pem(const X509* cert);
X509Ptr ParseCert(const std::vector<uint8_t>& der);
// Signs any to-be-signed bytes and wraps them as SEQUENCE { tbs,
// signatureAlgorithm, signature } (a SIGNED{} structure), so that a test can
// sign a TBS of its own making.
std::vector<uint8_t> SignTbs(const std::vector<uint8_t>& tbs, const Key& key);
// The DER AlgorithmIdentifier of the signatures made with |key|.
std::vector<uint8_t> SignatureAlgorithmDer(const Key& key);
// |der| (one element) with its outer length in four octets: BER, not DER.
std::vector<uint8_t> LongFormLength(const std::vector<uint8_t>& der);

// Root -> intermediate -> leaf in one call: "Quillon Test Root CA",
// "Quillon Test Intermediate CA" and "Quillon Test Leaf" under TestName().
struct Pki {
  Key intermediateKey{};
  X509Ptr root{}, intermediate{}, leaf{};
};

Pki MakePki(KeyType type);

// ---------------------------------------------------------------------------
// CRLs, issued by TestName("Quillon Test CA").

struct RevokedSpec {
  Serial serial = 1;
  time_t revocationDate = Now() - kDay;
  std::optional<int> reason{};  // reasonCode entry extension
};

// issuingDistributionPoint (RFC 5280 5.2.5), critical.
struct IdpSpec {
  std::vector<std::string> uris{};  // distributionPoint fullName URIs; empty = absent
};

struct CrlSpec {
  Key signingKey{};  // required

  int version = 2;  // 1: no version field and no extensions at all
  time_t thisUpdate = Now() - kHour;
  std::optional<time_t> nextUpdate = Now() + 7 * kDay;  // nullopt: absent

  std::vector<RevokedSpec> revoked{};  // written in this order; none: field absent

  // CRL extensions, after authorityKeyIdentifier (the key's identifier).
  std::optional<Serial> crlNumber = Serial(1);
  std::optional<IdpSpec> issuingDistributionPoint{};
};

std::vector<uint8_t> MakeCrlDer(const CrlSpec& spec);

// Huge CRLs, encoded directly, for benchmarks. Entry i has the serial
// LargeCrlSerial(i, seed) (unique, 16 bytes), a revocation date in 2020-2022,
// a reasonCode when i % 3 == 0 and an invalidityDate when i % 100000 == 1.
std::vector<uint8_t> MakeLargeCrl(const Key& issuerKey, const NameSpec& issuer, size_t entries,
                                  uint64_t seed);
Serial LargeCrlSerial(size_t index, uint64_t seed);
// A serial that is on no CRL made with this seed, whatever its size; distinct
// for distinct k.
Serial LargeCrlAbsentSerial(size_t k, uint64_t seed);

// ---------------------------------------------------------------------------
// OCSP responses (successful, basic).

inline constexpr int kReasonAaCompromise = 10;  // CRLReason aACompromise

enum class CertStatus { kGood, kRevoked, kUnknown };

enum class ResponderIdType { kByName, kByKey };

struct SingleResponseSpec {
  const X509* issuerCert = nullptr;  // required: CertID (SHA-1) issuer name and key hashes
  Serial serial = 1;
  CertStatus status = CertStatus::kGood;
  time_t revocationTime = Now() - kDay;  // for kRevoked
  std::optional<int> reason{};           // for kRevoked
  time_t thisUpdate = Now() - kHour;
  std::optional<time_t> nextUpdate = Now() + kDay;  // nullopt: absent
  std::optional<time_t> invalidityDate{};           // singleExtensions invalidityDate
};

struct OcspSpec {
  std::vector<SingleResponseSpec> responses{};
  time_t producedAt = Now();

  // The responder: its certificate (named by responderID) and its key. The CA
  // itself (signerCert = CA certificate) or a delegated responder.
  const X509* signerCert = nullptr;
  Key signerKey{};
  Key signWithKey{};  // empty: signerKey; an unrelated key makes a wrong signature
  ResponderIdType responderId = ResponderIdType::kByName;
  std::optional<std::vector<uint8_t>> nonce{};  // id-pkix-ocsp-nonce
};

std::vector<uint8_t> MakeOcspDer(const OcspSpec& spec);

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
