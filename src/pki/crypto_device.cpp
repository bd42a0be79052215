#include "pki/crypto_device.h"

#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/crypto.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/param_build.h>
#include <openssl/provider.h>
#include <openssl/rsa.h>

#include <climits>
#include <memory>
#include <new>

namespace quillon::pki {

namespace {

// ---------------------------------------------------------------------------
// OpenSSL ownership

struct BnFree { void operator()(BIGNUM* p) const { BN_free(p); } };
struct BnCtxFree { void operator()(BN_CTX* p) const { BN_CTX_free(p); } };
struct PkeyFree { void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); } };
struct PkeyCtxFree { void operator()(EVP_PKEY_CTX* p) const { EVP_PKEY_CTX_free(p); } };
struct MdCtxFree { void operator()(EVP_MD_CTX* p) const { EVP_MD_CTX_free(p); } };
struct ParamBldFree { void operator()(OSSL_PARAM_BLD* p) const { OSSL_PARAM_BLD_free(p); } };
struct ParamFree { void operator()(OSSL_PARAM* p) const { OSSL_PARAM_free(p); } };
struct GroupFree { void operator()(EC_GROUP* p) const { EC_GROUP_free(p); } };
struct PointFree { void operator()(EC_POINT* p) const { EC_POINT_free(p); } };

using BnPtr = std::unique_ptr<BIGNUM, BnFree>;
using BnCtxPtr = std::unique_ptr<BN_CTX, BnCtxFree>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxFree>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxFree>;
using ParamBldPtr = std::unique_ptr<OSSL_PARAM_BLD, ParamBldFree>;
using ParamPtr = std::unique_ptr<OSSL_PARAM, ParamFree>;
using GroupPtr = std::unique_ptr<EC_GROUP, GroupFree>;
using PointPtr = std::unique_ptr<EC_POINT, PointFree>;

// Whatever OpenSSL reports while the device works is the device's business:
// the errors it queues are dropped on the way out so that they never surface
// in another component's error checks.
class ErrorScope {
 public:
  ErrorScope() { ERR_set_mark(); }
  ~ErrorScope() { ERR_pop_to_mark(); }
  ErrorScope(const ErrorScope&) = delete;
  ErrorScope& operator=(const ErrorScope&) = delete;
};

BnPtr BnFromBytes(der::Input bytes) {
  return BnPtr(BN_bin2bn(bytes.data(), static_cast<int>(bytes.size()), nullptr));
}

BnPtr BnFromHex(const char* hex) {
  BIGNUM* bn = nullptr;
  if (!BN_hex2bn(&bn, hex)) return nullptr;
  return BnPtr(bn);
}

// ---------------------------------------------------------------------------
// Algorithm tables

struct DigestEntry {
  DigestAlgorithm algorithm;
  const char* oid;
  const char* openssl_name;  // the name the default and legacy providers fetch
};

constexpr DigestEntry kDigests[kDigestAlgorithmCount] = {
    {DigestAlgorithm::kMd5, "1.2.840.113549.2.5", "MD5"},
    {DigestAlgorithm::kSha1, "1.3.14.3.2.26", "SHA1"},
    {DigestAlgorithm::kSha224, "2.16.840.1.101.3.4.2.4", "SHA2-224"},
    {DigestAlgorithm::kSha256, "2.16.840.1.101.3.4.2.1", "SHA2-256"},
    {DigestAlgorithm::kSha384, "2.16.840.1.101.3.4.2.2", "SHA2-384"},
    {DigestAlgorithm::kSha512, "2.16.840.1.101.3.4.2.3", "SHA2-512"},
    {DigestAlgorithm::kRipemd160, "1.3.36.3.2.1", "RIPEMD-160"},
};

int Index(DigestAlgorithm a) { return static_cast<int>(a); }

enum class Scheme : uint8_t { kRsaPkcs1, kRsaPss, kEcdsa };

struct SignatureEntry {
  const char* oid;
  Scheme scheme;
  DigestAlgorithm digest;  // for PSS: taken from the parameters instead
};

constexpr SignatureEntry kSignatures[] = {
    {"1.2.840.113549.1.1.4", Scheme::kRsaPkcs1, DigestAlgorithm::kMd5},
    {"1.3.14.3.2.3", Scheme::kRsaPkcs1, DigestAlgorithm::kMd5},
    {"1.2.840.113549.1.1.5", Scheme::kRsaPkcs1, DigestAlgorithm::kSha1},
    {"1.3.14.3.2.29", Scheme::kRsaPkcs1, DigestAlgorithm::kSha1},
    {"1.2.840.113549.1.1.11", Scheme::kRsaPkcs1, DigestAlgorithm::kSha256},
    {"1.2.840.113549.1.1.12", Scheme::kRsaPkcs1, DigestAlgorithm::kSha384},
    {"1.2.840.113549.1.1.13", Scheme::kRsaPkcs1, DigestAlgorithm::kSha512},
    {"1.3.36.3.3.1.2", Scheme::kRsaPkcs1, DigestAlgorithm::kRipemd160},
    {"1.2.840.113549.1.1.10", Scheme::kRsaPss, DigestAlgorithm::kSha1},
    {"1.2.840.10045.4.1", Scheme::kEcdsa, DigestAlgorithm::kSha1},
    {"1.2.840.10045.4.3.1", Scheme::kEcdsa, DigestAlgorithm::kSha224},
    {"1.2.840.10045.4.3.2", Scheme::kEcdsa, DigestAlgorithm::kSha256},
    {"1.2.840.10045.4.3.3", Scheme::kEcdsa, DigestAlgorithm::kSha384},
    {"1.2.840.10045.4.3.4", Scheme::kEcdsa, DigestAlgorithm::kSha512},
    // Legacy identifiers verified as ECDSA with SHA-1 (see the header).
    {"1.3.36.3.4.1", Scheme::kEcdsa, DigestAlgorithm::kSha1},
    {"1.3.6.1.5.5.8.1.2", Scheme::kEcdsa, DigestAlgorithm::kSha1},
};

constexpr const char* kOidRsaEncryption = "1.2.840.113549.1.1.1";
constexpr const char* kOidX500Rsa = "2.5.8.1.1";
constexpr const char* kOidRsaPss = "1.2.840.113549.1.1.10";
constexpr const char* kOidMgf1 = "1.2.840.113549.1.1.8";
constexpr const char* kOidEcPublicKey = "1.2.840.10045.2.1";

struct CurveEntry {
  const char* oid;
  const char* openssl_name;
  bool built_here = false;  // not known to OpenSSL: built from its parameters
};

constexpr CurveEntry kCurves[] = {
    {"1.2.840.10045.3.1.1", "prime192v1"},
    {"1.2.840.10045.3.1.2", "prime192v2"},
    {"1.2.840.10045.3.1.3", "prime192v3"},
    {"1.2.840.10045.3.1.4", "prime239v1"},
    {"1.2.840.10045.3.1.5", "prime239v2"},
    {"1.2.840.10045.3.1.6", "prime239v3"},
    {"1.2.840.10045.3.1.7", "prime256v1"},
    {"1.3.132.0.33", "secp224r1"},
    {"1.3.132.0.34", "secp384r1"},
    {"1.3.132.0.35", "secp521r1"},
    {"1.3.36.3.3.2.8.1.1.1", "brainpoolP160r1"},
    {"1.3.36.3.3.2.8.1.1.2", "brainpoolP160t1"},
    {"1.3.36.3.3.2.8.1.1.3", "brainpoolP192r1"},
    {"1.3.36.3.3.2.8.1.1.4", "brainpoolP192t1"},
    {"1.3.36.3.3.2.8.1.1.5", "brainpoolP224r1"},
    {"1.3.36.3.3.2.8.1.1.6", "brainpoolP224t1"},
    {"1.3.36.3.3.2.8.1.1.7", "brainpoolP256r1"},
    {"1.3.36.3.3.2.8.1.1.8", "brainpoolP256t1"},
    {"1.3.36.3.3.2.8.1.1.9", "brainpoolP320r1"},
    {"1.3.36.3.3.2.8.1.1.10", "brainpoolP320t1"},
    {"1.3.36.3.3.2.8.1.1.11", "brainpoolP384r1"},
    {"1.3.36.3.3.2.8.1.1.12", "brainpoolP384t1"},
    {"1.3.36.3.3.2.8.1.1.13", "brainpoolP512r1"},
    {"1.3.36.3.3.2.8.1.1.14", "brainpoolP512t1"},
    {"1.2.250.1.223.101.256.1", "FRP256v1", true},
};

// FRP256v1, the French curve published by ANSSI (JORF no. 0241, 2011-10-16):
// y^2 = x^3 + ax + b over GF(p), base point G of prime order n, cofactor 1.
constexpr const char* kFrpP = "F1FD178C0B3AD58F10126DE8CE42435B3961ADBCABC8CA6DE8FCF353D86E9C03";
constexpr const char* kFrpA = "F1FD178C0B3AD58F10126DE8CE42435B3961ADBCABC8CA6DE8FCF353D86E9C00";
constexpr const char* kFrpB = "EE353FCA5428A9300D4ABA754A44C00FDFEC0C9AE4B1A1803075ED967B7BB73F";
constexpr const char* kFrpGx = "B6B3D4C356C139EB31183D4749D423958C27D2DCAF98B70164C97A2DD98F5CFF";
constexpr const char* kFrpGy = "6142E0F7C8B204911F9271F0F3ECEF8C2701C307E8E4C9E183115A1554062CFB";
constexpr const char* kFrpN = "F1FD178C0B3AD58F10126DE8CE42435B53DC67E140D2BF941FFDD459C6D655E1";
constexpr const char* kFrpH = "01";

// The tables above as OID content octets, made once.
struct OidTables {
  OidTables() {
    for (const auto& d : kDigests) digests.emplace_back(d.oid);
    for (const auto& s : kSignatures) signatures.emplace_back(s.oid);
    for (const auto& c : kCurves) curves.emplace_back(c.oid);
  }
  std::vector<der::Oid> digests, signatures, curves;
  der::Oid rsa_encryption{kOidRsaEncryption};
  der::Oid x500_rsa{kOidX500Rsa};
  der::Oid rsa_pss{kOidRsaPss};
  der::Oid mgf1{kOidMgf1};
  der::Oid ec_public_key{kOidEcPublicKey};
};

const OidTables& Oids() {
  static const OidTables tables;
  return tables;
}

bool DigestFromOid(der::Input oid, DigestAlgorithm* out) {
  const auto& t = Oids().digests;
  for (size_t i = 0; i < t.size(); ++i) {
    if (t[i] == oid) {
      *out = kDigests[i].algorithm;
      return true;
    }
  }
  return false;
}

const SignatureEntry* SignatureFromOid(der::Input oid) {
  const auto& t = Oids().signatures;
  for (size_t i = 0; i < t.size(); ++i) {
    if (t[i] == oid) return &kSignatures[i];
  }
  return nullptr;
}

const CurveEntry* CurveFromOid(der::Input oid) {
  const auto& t = Oids().curves;
  for (size_t i = 0; i < t.size(); ++i) {
    if (t[i] == oid) return &kCurves[i];
  }
  return nullptr;
}

// ---------------------------------------------------------------------------
// ASN.1 structures

// AlgorithmIdentifier ::= SEQUENCE {
//   algorithm   OBJECT IDENTIFIER,
//   parameters  ANY DEFINED BY algorithm OPTIONAL }
struct AlgorithmId {
  der::Input oid;
  bool has_params = false;
  der::Tag params_tag = 0;
  der::Input params;  // content octets of the parameters
};

bool ReadAlgorithmId(der::Parser* parser, AlgorithmId* out) {
  der::Parser seq;
  if (!parser->ReadSequence(&seq) || !seq.ReadOid(&out->oid)) return false;
  out->has_params = seq.HasMore();
  if (out->has_params && !seq.ReadTagAndValue(&out->params_tag, &out->params)) return false;
  return !seq.HasMore() && seq.Remaining().empty();
}

// One whole AlgorithmIdentifier TLV and nothing after it.
bool ParseAlgorithmId(der::Input tlv, AlgorithmId* out) {
  der::Parser parser(tlv);
  return ReadAlgorithmId(&parser, out) && parser.Remaining().empty();
}

// Parameters that must be NULL or absent (RFC 3279 and RFC 5758 require one
// or the other; encoders in the field use both).
bool NullOrAbsent(const AlgorithmId& id) {
  return !id.has_params || (id.params_tag == der::kNull && id.params.empty());
}

bool IsPssHash(DigestAlgorithm d) {
  return d == DigestAlgorithm::kSha1 || d == DigestAlgorithm::kSha224 ||
         d == DigestAlgorithm::kSha256 || d == DigestAlgorithm::kSha384 ||
         d == DigestAlgorithm::kSha512;
}

// HashAlgorithm ::= AlgorithmIdentifier (NULL or absent parameters)
bool ReadPssHash(der::Parser* parser, DigestAlgorithm* out) {
  AlgorithmId id;
  return ReadAlgorithmId(parser, &id) && NullOrAbsent(id) && DigestFromOid(id.oid, out) &&
         IsPssHash(*out);
}

struct PssParams {
  DigestAlgorithm hash = DigestAlgorithm::kSha1;
  DigestAlgorithm mgf1_hash = DigestAlgorithm::kSha1;
  uint64_t salt_length = 20;
};

// RSASSA-PSS-params ::= SEQUENCE {
//   hashAlgorithm     [0] HashAlgorithm    DEFAULT sha1,
//   maskGenAlgorithm  [1] MaskGenAlgorithm DEFAULT mgf1SHA1,
//   saltLength        [2] INTEGER          DEFAULT 20,
//   trailerField      [3] TrailerField     DEFAULT trailerFieldBC }
// MaskGenAlgorithm ::= AlgorithmIdentifier { id-mgf1, HashAlgorithm }
// TrailerField ::= INTEGER { trailerFieldBC(1) }
// (RFC 4055 section 3.1.) Fields that restate their default are accepted:
// some CAs write them.
bool ParsePssParams(der::Input sequence_content, PssParams* out) {
  *out = PssParams();
  der::Parser p(sequence_content);
  der::Parser field;
  bool present = false;

  if (!p.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &field, &present)) {
    return false;
  }
  if (present && (!ReadPssHash(&field, &out->hash) || field.HasMore())) return false;

  if (!p.ReadOptionalConstructed(der::ContextSpecificConstructed(1), &field, &present)) {
    return false;
  }
  if (present) {
    der::Parser mgf;
    der::Input mgf_oid;
    if (!field.ReadSequence(&mgf) || field.HasMore() || !mgf.ReadOid(&mgf_oid) ||
        !(Oids().mgf1 == mgf_oid) || !ReadPssHash(&mgf, &out->mgf1_hash) || mgf.HasMore()) {
      return false;
    }
  }

  if (!p.ReadOptionalConstructed(der::ContextSpecificConstructed(2), &field, &present)) {
    return false;
  }
  if (present && (!field.ReadUint64(&out->salt_length) || field.HasMore())) return false;

  if (!p.ReadOptionalConstructed(der::ContextSpecificConstructed(3), &field, &present)) {
    return false;
  }
  if (present) {
    uint64_t trailer = 0;
    if (!field.ReadUint64(&trailer) || field.HasMore() || trailer != 1) return false;
  }
  return !p.HasMore() && p.Remaining().empty() && out->salt_length <= INT_MAX;
}

enum class KeyType : uint8_t { kRsa, kRsaPssOnly, kEc };

// A public key as read from a SubjectPublicKeyInfo; views into its bytes.
struct PublicKey {
  KeyType type = KeyType::kRsa;
  // RSA: magnitudes without a leading zero octet.
  der::Input modulus, exponent;
  der::Input rsa_public_key;  // the DER RSAPublicKey
  bool pss_restricted = false;  // id-RSASSA-PSS key with parameters
  PssParams pss;
  // EC
  const CurveEntry* curve = nullptr;
  der::Input point;
};

// The magnitude of a positive INTEGER's content octets, or false.
bool PositiveMagnitude(der::Input content, der::Input* out) {
  if (content.empty() || (content[0] & 0x80)) return false;
  size_t i = 0;
  while (i < content.size() && content[i] == 0) ++i;
  if (i == content.size()) return false;  // zero
  *out = der::Input(content.data() + i, content.size() - i);
  return true;
}

size_t BitLength(der::Input magnitude) {
  if (magnitude.empty()) return 0;
  size_t bits = (magnitude.size() - 1) * 8;
  for (uint8_t top = magnitude[0]; top; top >>= 1) ++bits;
  return bits;
}

constexpr size_t kMinRsaBits = 512;
constexpr size_t kMaxRsaBits = 16384;

// RSAPublicKey ::= SEQUENCE { modulus INTEGER, publicExponent INTEGER }
bool ParseRsaPublicKey(der::Input der, PublicKey* key) {
  der::Parser outer(der);
  der::Parser seq;
  der::Input n, e;
  if (!outer.ReadSequence(&seq) || outer.HasMore() || !outer.Remaining().empty()) return false;
  if (!seq.ReadInteger(&n) || !seq.ReadInteger(&e) || seq.HasMore()) return false;
  if (!PositiveMagnitude(n, &key->modulus) || !PositiveMagnitude(e, &key->exponent)) return false;
  const size_t bits = BitLength(key->modulus);
  if (bits < kMinRsaBits || bits > kMaxRsaBits) return false;
  // An exponent of 1 or an even one is no RSA key; nor is one as long as the
  // modulus (OpenSSL bounds it further).
  if (!(key->exponent[key->exponent.size() - 1] & 1)) return false;
  if (key->exponent.size() == 1 && key->exponent[0] == 1) return false;
  if (key->exponent.size() > key->modulus.size()) return false;
  key->rsa_public_key = der;
  return true;
}

// SubjectPublicKeyInfo ::= SEQUENCE {
//   algorithm         AlgorithmIdentifier,
//   subjectPublicKey  BIT STRING }
bool ParseSpki(der::Input spki, PublicKey* key) {
  der::Parser outer(spki);
  der::Parser seq;
  AlgorithmId alg;
  der::Input bits;
  uint8_t unused = 0;
  if (!outer.ReadSequence(&seq) || outer.HasMore() || !outer.Remaining().empty()) return false;
  if (!ReadAlgorithmId(&seq, &alg) || !seq.ReadBitString(&bits, &unused) || seq.HasMore()) {
    return false;
  }
  if (unused != 0) return false;
  const OidTables& oids = Oids();

  if (oids.rsa_encryption == alg.oid) {
    key->type = KeyType::kRsa;
    return NullOrAbsent(alg) && ParseRsaPublicKey(bits, key);
  }
  if (oids.x500_rsa == alg.oid) {
    // X.509 (1988): rsa ALGORITHM PARAMETER KeySize ::= INTEGER
    if (!NullOrAbsent(alg) && alg.params_tag != der::kInteger) return false;
    key->type = KeyType::kRsa;
    return ParseRsaPublicKey(bits, key);
  }
  if (oids.rsa_pss == alg.oid) {
    // RFC 4055 section 1.2: absent parameters leave the key unrestricted
    // within PSS; present ones bind its signatures to them.
    key->type = KeyType::kRsaPssOnly;
    if (alg.has_params) {
      if (alg.params_tag != der::kSequence || !ParsePssParams(alg.params, &key->pss)) return false;
      key->pss_restricted = true;
    }
    return ParseRsaPublicKey(bits, key);
  }
  if (oids.ec_public_key == alg.oid) {
    // ECParameters ::= CHOICE { namedCurve OBJECT IDENTIFIER, ... }: only
    // the named form is accepted (see the header).
    if (!alg.has_params || alg.params_tag != der::kOid) return false;
    key->type = KeyType::kEc;
    key->curve = CurveFromOid(alg.params);
    if (!key->curve) return false;
    // ECPoint: compressed (02/03) or uncompressed (04); not the point at
    // infinity (00) nor the hybrid forms.
    if (bits.empty() || (bits[0] != 0x02 && bits[0] != 0x03 && bits[0] != 0x04)) return false;
    key->point = bits;
    return true;
  }
  return false;
}

// Ecdsa-Sig-Value ::= SEQUENCE { r INTEGER, s INTEGER }, strict DER, both
// positive. OpenSSL checks the range against the group order.
bool WellFormedEcdsaSignature(der::Input signature) {
  der::Parser outer(signature);
  der::Parser seq;
  der::Input r, s, magnitude;
  if (!outer.ReadSequence(&seq) || outer.HasMore() || !outer.Remaining().empty()) return false;
  if (!seq.ReadInteger(&r) || !seq.ReadInteger(&s) || seq.HasMore()) return false;
  return PositiveMagnitude(r, &magnitude) && magnitude.size() <= 66 &&
         PositiveMagnitude(s, &magnitude) && magnitude.size() <= 66;
}

// ---------------------------------------------------------------------------
// Keys for OpenSSL

PkeyPtr FromData(OSSL_LIB_CTX* libctx, const char* type, OSSL_PARAM_BLD* bld) {
  ParamPtr params(OSSL_PARAM_BLD_to_param(bld));
  PkeyCtxPtr ctx(EVP_PKEY_CTX_new_from_name(libctx, type, nullptr));
  if (!params || !ctx || EVP_PKEY_fromdata_init(ctx.get()) != 1) return nullptr;
  EVP_PKEY* pkey = nullptr;
  if (EVP_PKEY_fromdata(ctx.get(), &pkey, EVP_PKEY_PUBLIC_KEY, params.get()) != 1) return nullptr;
  return PkeyPtr(pkey);
}

PkeyPtr RsaKey(OSSL_LIB_CTX* libctx, const PublicKey& key) {
  BnPtr n = BnFromBytes(key.modulus);
  BnPtr e = BnFromBytes(key.exponent);
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!n || !e || !bld || !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_N, n.get()) ||
      !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_RSA_E, e.get())) {
    return nullptr;
  }
  return FromData(libctx, "RSA", bld.get());
}

// The uncompressed encoding of FRP256v1's base point.
std::vector<uint8_t> FrpGenerator() {
  std::vector<uint8_t> g(65, 0);
  g[0] = 0x04;
  BnPtr x = BnFromHex(kFrpGx), y = BnFromHex(kFrpGy);
  if (!x || !y || BN_bn2binpad(x.get(), g.data() + 1, 32) != 32 ||
      BN_bn2binpad(y.get(), g.data() + 33, 32) != 32) {
    return {};
  }
  return g;
}

PkeyPtr EcKey(OSSL_LIB_CTX* libctx, const PublicKey& key) {
  ParamBldPtr bld(OSSL_PARAM_BLD_new());
  if (!bld) return nullptr;
  // Kept alive until the parameters are built.
  BnPtr p, a, b, n, h;
  std::vector<uint8_t> generator;
  if (key.curve->built_here) {
    p = BnFromHex(kFrpP);
    a = BnFromHex(kFrpA);
    b = BnFromHex(kFrpB);
    n = BnFromHex(kFrpN);
    h = BnFromHex(kFrpH);
    generator = FrpGenerator();
    if (!p || !a || !b || !n || !h || generator.empty() ||
        !OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_EC_FIELD_TYPE,
                                         SN_X9_62_prime_field, 0) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_EC_P, p.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_EC_A, a.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_EC_B, b.get()) ||
        !OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_EC_GENERATOR,
                                          generator.data(), generator.size()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_EC_ORDER, n.get()) ||
        !OSSL_PARAM_BLD_push_BN(bld.get(), OSSL_PKEY_PARAM_EC_COFACTOR, h.get())) {
      return nullptr;
    }
  } else if (!OSSL_PARAM_BLD_push_utf8_string(bld.get(), OSSL_PKEY_PARAM_GROUP_NAME,
                                              key.curve->openssl_name, 0)) {
    return nullptr;
  }
  // OpenSSL decodes the point and refuses one that is not on the curve.
  if (!OSSL_PARAM_BLD_push_octet_string(bld.get(), OSSL_PKEY_PARAM_PUB_KEY, key.point.data(),
                                        key.point.size())) {
    return nullptr;
  }
  return FromData(libctx, "EC", bld.get());
}

GroupPtr FrpGroup(OSSL_LIB_CTX* libctx) {
  BnCtxPtr bnctx(BN_CTX_new_ex(libctx));
  BnPtr p = BnFromHex(kFrpP), a = BnFromHex(kFrpA), b = BnFromHex(kFrpB);
  BnPtr n = BnFromHex(kFrpN), h = BnFromHex(kFrpH);
  const std::vector<uint8_t> g = FrpGenerator();
  if (!bnctx || !p || !a || !b || !n || !h || g.empty()) return nullptr;
  GroupPtr group(EC_GROUP_new_curve_GFp(p.get(), a.get(), b.get(), bnctx.get()));
  if (!group) return nullptr;
  PointPtr generator(EC_POINT_new(group.get()));
  if (!generator ||
      EC_POINT_oct2point(group.get(), generator.get(), g.data(), g.size(), bnctx.get()) != 1 ||
      EC_GROUP_set_generator(group.get(), generator.get(), n.get(), h.get()) != 1) {
    return nullptr;
  }
  return group;
}

}  // namespace

// ---------------------------------------------------------------------------
// CryptoDevice

CryptoDevice::CryptoDevice(Semaphore* guard) : guard_(guard) {}

CryptoDevice::~CryptoDevice() { close(); }

bool CryptoDevice::open(const char* /*slot*/, const char* /*pin*/, unsigned /*flags*/) {
  if (isOpen()) return true;
  ErrorScope errors;
  try {
    (void)Oids();  // build the tables now rather than under a guard later
  } catch (...) {
    return false;
  }
  libctx_ = OSSL_LIB_CTX_new();
  if (!libctx_) return false;
  default_provider_ = OSSL_PROVIDER_load(libctx_, "default");
  if (!default_provider_) {
    close();
    return false;
  }
  for (const auto& d : kDigests) {
    md_[Index(d.algorithm)] = EVP_MD_fetch(libctx_, d.openssl_name, nullptr);
  }
  // OpenSSL builds before 3.0.7 keep RIPEMD-160, and some distributions MD5,
  // in the legacy provider only. It is loaded into this device's context,
  // never the application's.
  if (!md_[Index(DigestAlgorithm::kMd5)] || !md_[Index(DigestAlgorithm::kRipemd160)]) {
    legacy_provider_ = OSSL_PROVIDER_load(libctx_, "legacy");
    if (legacy_provider_) {
      for (const auto& d : kDigests) {
        if (!md_[Index(d.algorithm)]) {
          md_[Index(d.algorithm)] = EVP_MD_fetch(libctx_, d.openssl_name, nullptr);
        }
      }
    }
  }
  // SHA-1 and SHA-256 are the least the library needs (CertIDs, CRLs).
  if (!md_[Index(DigestAlgorithm::kSha1)] || !md_[Index(DigestAlgorithm::kSha256)]) {
    close();
    return false;
  }
  frp256v1_ = FrpGroup(libctx_).release();  // null: FRP256v1 keys fail
  return true;
}

void CryptoDevice::close() {
  for (auto& md : md_) {
    EVP_MD_free(md);
    md = nullptr;
  }
  EC_GROUP_free(frp256v1_);
  frp256v1_ = nullptr;
  if (legacy_provider_) OSSL_PROVIDER_unload(legacy_provider_);
  if (default_provider_) OSSL_PROVIDER_unload(default_provider_);
  legacy_provider_ = default_provider_ = nullptr;
  OSSL_LIB_CTX_free(libctx_);
  libctx_ = nullptr;
}

bool CryptoDevice::DigestUnguarded(DigestAlgorithm algorithm, der::Input data,
                                   std::vector<uint8_t>* out) const {
  const EVP_MD* md = md_[Index(algorithm)];
  if (!md) return false;
  out->resize(static_cast<size_t>(EVP_MD_get_size(md)));
  unsigned int length = 0;
  if (EVP_Digest(data.data(), data.size(), out->data(), &length, md, nullptr) != 1 ||
      length != out->size()) {
    out->clear();
    return false;
  }
  return true;
}

bool CryptoDevice::digest(DigestAlgorithm algorithm, der::Input data,
                          std::vector<uint8_t>* out) const {
  out->clear();
  if (!isOpen() || Index(algorithm) < 0 || Index(algorithm) >= kDigestAlgorithmCount) return false;
  ErrorScope errors;
  SemaphoreGuard hold(guard_);
  try {
    return DigestUnguarded(algorithm, data, out);
  } catch (...) {
    out->clear();
    return false;
  }
}

bool CryptoDevice::digest(der::Input algorithm_oid_content, der::Input data,
                          std::vector<uint8_t>* out) const {
  out->clear();
  DigestAlgorithm algorithm;
  try {
    if (!DigestFromOid(algorithm_oid_content, &algorithm)) return false;
  } catch (...) {
    return false;
  }
  return digest(algorithm, data, out);
}

bool CryptoDevice::sha1(der::Input data, std::vector<uint8_t>* out) const {
  return digest(DigestAlgorithm::kSha1, data, out);
}

bool CryptoDevice::sha256(der::Input data, std::vector<uint8_t>* out) const {
  return digest(DigestAlgorithm::kSha256, data, out);
}

bool CryptoDevice::verify(der::Input signature_algorithm, der::Input spki,
                          der::Input signed_bytes, der::Input signature) const {
  if (!isOpen()) return false;
  ErrorScope errors;
  SemaphoreGuard hold(guard_);
  try {
    return VerifyUnguarded(signature_algorithm, spki, signed_bytes, signature);
  } catch (...) {
    return false;
  }
}

bool CryptoDevice::VerifyUnguarded(der::Input signature_algorithm, der::Input spki,
                                   der::Input signed_bytes, der::Input signature) const {
  AlgorithmId alg;
  if (!ParseAlgorithmId(signature_algorithm, &alg)) return false;
  const SignatureEntry* entry = SignatureFromOid(alg.oid);
  if (!entry) return false;

  PublicKey key;
  if (!ParseSpki(spki, &key)) return false;

  DigestAlgorithm digest = entry->digest;
  PssParams pss;
  PkeyPtr pkey;
  switch (entry->scheme) {
    case Scheme::kRsaPkcs1:
      // An id-RSASSA-PSS key signs with PSS only (RFC 4055 section 1.2).
      if (key.type != KeyType::kRsa || !NullOrAbsent(alg)) return false;
      break;
    case Scheme::kRsaPss:
      if (key.type == KeyType::kEc) return false;
      // The parameters are required when the algorithm is used for a
      // signature (RFC 4055 section 3.1), even if every field is defaulted.
      if (!alg.has_params || alg.params_tag != der::kSequence) return false;
      if (!ParsePssParams(alg.params, &pss)) return false;
      if (key.pss_restricted &&
          (pss.hash != key.pss.hash || pss.mgf1_hash != key.pss.mgf1_hash ||
           pss.salt_length < key.pss.salt_length)) {
        return false;
      }
      digest = pss.hash;
      break;
    case Scheme::kEcdsa:
      if (key.type != KeyType::kEc || !NullOrAbsent(alg)) return false;
      break;
  }

  if (key.type == KeyType::kEc) {
    if (!WellFormedEcdsaSignature(signature)) return false;
    pkey = EcKey(libctx_, key);
  } else {
    // RFC 8017 section 8.2.2: the signature is exactly as long as the modulus.
    if (signature.size() != key.modulus.size()) return false;
    pkey = RsaKey(libctx_, key);
  }
  if (!pkey) return false;

  const EVP_MD* md = md_[Index(digest)];
  MdCtxPtr mdctx(EVP_MD_CTX_new());
  if (!md || !mdctx) return false;
  EVP_PKEY_CTX* pctx = nullptr;  // owned by mdctx
  if (EVP_DigestVerifyInit_ex(mdctx.get(), &pctx, EVP_MD_get0_name(md), libctx_, nullptr,
                              pkey.get(), nullptr) != 1) {
    return false;
  }
  if (entry->scheme == Scheme::kRsaPss) {
    const EVP_MD* mgf1 = md_[Index(pss.mgf1_hash)];
    if (!mgf1 || EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) != 1 ||
        EVP_PKEY_CTX_set_rsa_mgf1_md_name(pctx, EVP_MD_get0_name(mgf1), nullptr) != 1 ||
        EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, static_cast<int>(pss.salt_length)) != 1) {
      return false;
    }
  } else if (entry->scheme == Scheme::kRsaPkcs1) {
    if (EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PADDING) != 1) return false;
  }
  return EVP_DigestVerify(mdctx.get(), signature.data(), signature.size(), signed_bytes.data(),
                          signed_bytes.size()) == 1;
}

bool CryptoDevice::keyHash(der::Input spki, std::vector<uint8_t>* out,
                           der::Input hash_oid_content) const {
  out->clear();
  if (!isOpen()) return false;
  ErrorScope errors;
  try {
    DigestAlgorithm algorithm = DigestAlgorithm::kSha1;
    if (!hash_oid_content.empty() && !DigestFromOid(hash_oid_content, &algorithm)) return false;
    SemaphoreGuard hold(guard_);
    return KeyHashUnguarded(spki, algorithm, out);
  } catch (...) {
    out->clear();
    return false;
  }
}

bool CryptoDevice::KeyHashUnguarded(der::Input spki, DigestAlgorithm algorithm,
                                    std::vector<uint8_t>* out) const {
  PublicKey key;
  if (!ParseSpki(spki, &key)) return false;
  if (key.type != KeyType::kEc) return DigestUnguarded(algorithm, key.rsa_public_key, out);

  // The point in this device's encoding: decoded on its curve (which rejects
  // points off the curve) and written uncompressed.
  BnCtxPtr bnctx(BN_CTX_new_ex(libctx_));
  GroupPtr named;
  const EC_GROUP* group = frp256v1_;
  if (!key.curve->built_here) {
    const int nid = OBJ_sn2nid(key.curve->openssl_name);
    named.reset(EC_GROUP_new_by_curve_name_ex(libctx_, nullptr, nid));
    group = named.get();
  }
  if (!bnctx || !group) return false;
  PointPtr point(EC_POINT_new(group));
  if (!point ||
      EC_POINT_oct2point(group, point.get(), key.point.data(), key.point.size(),
                         bnctx.get()) != 1 ||
      EC_POINT_is_at_infinity(group, point.get())) {
    return false;
  }
  const size_t length = EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED,
                                           nullptr, 0, bnctx.get());
  if (length == 0) return false;
  std::vector<uint8_t> encoded(length);
  if (EC_POINT_point2oct(group, point.get(), POINT_CONVERSION_UNCOMPRESSED, encoded.data(),
                         encoded.size(), bnctx.get()) != length) {
    return false;
  }
  return DigestUnguarded(algorithm, der::Input(encoded), out);
}

bool CryptoDevice::nameHash(der::Input name_tlv, std::vector<uint8_t>* out,
                            der::Input hash_oid_content) const {
  out->clear();
  DigestAlgorithm algorithm = DigestAlgorithm::kSha1;
  try {
    if (!hash_oid_content.empty() && !DigestFromOid(hash_oid_content, &algorithm)) return false;
  } catch (...) {
    return false;
  }
  // Name ::= SEQUENCE OF RelativeDistinguishedName, hashed as given.
  der::Parser parser(name_tlv);
  der::Input content;
  if (!parser.Read(der::kSequence, &content) || !parser.Remaining().empty()) return false;
  return digest(algorithm, name_tlv, out);
}

}  // namespace quillon::pki
