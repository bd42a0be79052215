// CryptoDevice: the provider of digests and signature verification for the
// whole library (CRL and certificate signatures, OCSP responses, CertID
// hashes), backed by OpenSSL 3 libcrypto.
//
// The device owns an OpenSSL library context of its own, so it needs no
// provider to be loaded process-wide and leaves the application's OpenSSL
// state alone. Everything it is given is DER, read with the strict der::Parser
// of this layer before any byte reaches OpenSSL.
//
// Digests by algorithm identifier:
//   MD5 1.2.840.113549.2.5, SHA-1 1.3.14.3.2.26, SHA-224 2.16.840.1.101.3.4.2.4,
//   SHA-256 .2.1, SHA-384 .2.2, SHA-512 .2.3, RIPEMD-160 1.3.36.3.2.1.
//
// Signature algorithms (the digest each one implies):
//   RSASSA-PKCS1-v1_5  1.2.840.113549.1.1.4 (MD5), 1.3.14.3.2.3 (MD5, OIW),
//                      1.2.840.113549.1.1.5 (SHA-1), 1.3.14.3.2.29 (SHA-1, OIW),
//                      1.2.840.113549.1.1.11/.12/.13 (SHA-256/384/512),
//                      1.3.36.3.3.1.2 (RIPEMD-160, TeleTrusT).
//                      sha224WithRSAEncryption (1.1.14) is not among them.
//   RSASSA-PSS         1.2.840.113549.1.1.10 with its RSASSA-PSS-params
//                      (hash and MGF1 hash from the SHA-1/SHA-2 family, any
//                      salt length, trailer field 1; absent fields take the
//                      defaults SHA-1, MGF1 with SHA-1, 20). The parameters
//                      themselves must be present.
//   ECDSA              1.2.840.10045.4.1 (SHA-1), 1.2.840.10045.4.3.1..4
//                      (SHA-224/256/384/512), and two legacy identifiers that
//                      name no ECDSA digest of their own and are verified as
//                      ECDSA with SHA-1: 1.3.6.1.5.5.8.1.2 (registered as
//                      hmacSHA, i.e. HMAC-SHA-1, in the IPsec arc) and
//                      1.3.36.3.4.1 (TeleTrusT signatureScheme sigS_ISO9796-1,
//                      which names no hash; SHA-1 is the digest of the
//                      ECDSA-with-SHA1 family these identifiers were used with).
//
// Public keys (SubjectPublicKeyInfo):
//   RSA under rsaEncryption 1.2.840.113549.1.1.1 (parameters NULL or absent)
//   and under the X.500 identifier 2.5.8.1.1 (parameters absent, NULL or the
//   key size INTEGER of X.509 (1988)); the key is built from the modulus and
//   exponent, so OpenSSL never has to know the second identifier. RSA keys
//   under id-RSASSA-PSS 1.2.840.113549.1.1.10 verify PSS signatures only, and
//   when the key carries RSASSA-PSS-params the signature must use the same
//   hash and MGF1 hash and a salt at least as long (RFC 4055 section 3.1).
//   Moduli of 512 to 16384 bits with an odd exponent above 1.
//   EC keys 1.2.840.10045.2.1 on the named curves 1.2.840.10045.3.1.1..7,
//   1.3.132.0.33/34/35, brainpool 1.3.36.3.3.2.8.1.1.1..14 and FRP256v1
//   1.2.250.1.223.101.256.1 (built from its published domain parameters, as
//   OpenSSL does not carry it). Keys with explicit curve parameters
//   (specifiedCurve) or implicitlyCA are refused, also when the parameters
//   happen to describe one of the named curves: no deployed CA needs them and
//   accepting them means trusting curve parameters taken from the key itself.
//   The point must be on the curve and not the point at infinity.
//
// Anything else, a malformed key, algorithm identifier or signature makes a
// check fail with false; nothing throws and nothing is left allocated.
//
// Guard: every digest and every verification runs while holding the device
// guard (a Semaphore, usually the one returned by
// cache_getCryptoDeviceSemaphore). The device takes the guard itself, so a
// caller must not hold it while calling the device (the guard is not
// recursive). Without a guard the device runs unguarded; its checks are safe
// to run side by side in any case, only open() and close() are not.
#pragma once

#include <cstdint>
#include <vector>

#include "pki/der.h"
#include "quillon32/semaphore.h"

struct ossl_lib_ctx_st;
struct evp_md_st;
struct ec_group_st;
struct ossl_provider_st;

namespace quillon::pki {

// The digests the device computes.
enum class DigestAlgorithm : uint8_t {
  kMd5,
  kSha1,
  kSha224,
  kSha256,
  kSha384,
  kSha512,
  kRipemd160,
};
inline constexpr int kDigestAlgorithmCount = 7;

class CryptoDevice {
 public:
  // |guard| (may be null) is not owned and must outlive the device.
  explicit CryptoDevice(Semaphore* guard = nullptr);
  ~CryptoDevice();  // closes the device
  CryptoDevice(const CryptoDevice&) = delete;
  CryptoDevice& operator=(const CryptoDevice&) = delete;

  // Opens the software device: its OpenSSL library context, the providers it
  // needs (the default one, and the legacy one only when the default lacks
  // MD5 or RIPEMD-160) and the FRP256v1 group. The slot, PIN and flags select
  // a token on hardware devices; this device has a single built-in one and
  // ignores them (the library passes three nulls). True when open, also when
  // it already was; false, closed, when OpenSSL cannot provide the basics.
  [[nodiscard]] bool open(const char* slot, const char* pin, unsigned flags);
  // Frees what open() made; does nothing on a closed device.
  void close();
  bool isOpen() const { return libctx_ != nullptr; }

  Semaphore* guard() const { return guard_; }
  void setGuard(Semaphore* guard) { guard_ = guard; }

  // Digest of |data| with the algorithm whose OBJECT IDENTIFIER content
  // octets are |algorithm_oid_content| (the value of the OID, without tag and
  // length). True and *out set to the digest; false, *out cleared, when the
  // device is closed or the algorithm is not one of the seven above.
  [[nodiscard]] bool digest(der::Input algorithm_oid_content, der::Input data,
                            std::vector<uint8_t>* out) const;
  [[nodiscard]] bool digest(DigestAlgorithm algorithm, der::Input data,
                            std::vector<uint8_t>* out) const;
  [[nodiscard]] bool sha1(der::Input data, std::vector<uint8_t>* out) const;
  [[nodiscard]] bool sha256(der::Input data, std::vector<uint8_t>* out) const;

  // Verifies a signature made over |signed_bytes| as received (a TBS
  // certificate, TBS CRL or tbsResponseData TLV, never a re-encoding).
  //   signature_algorithm: the whole AlgorithmIdentifier TLV of the signature;
  //   spki:                the whole SubjectPublicKeyInfo TLV of the signer;
  //   signature:           the signature BIT STRING's bit bytes (without the
  //                        unused-bits octet, which must have been 0).
  // True only when the algorithm, the key and their pairing are supported and
  // the signature is valid.
  [[nodiscard]] bool verify(der::Input signature_algorithm, der::Input spki,
                            der::Input signed_bytes, der::Input signature) const;

  // The issuerKeyHash of an OCSP CertID for the issuer key |spki| (a whole
  // SubjectPublicKeyInfo TLV), with the digest named by |hash_oid_content|
  // (OID content octets; empty: SHA-1, the algorithm of the CertIDs this
  // library sends). The key's algorithm decides what is hashed:
  //   RSA (1.2.840.113549.1.1.1, 2.5.8.1.1, and id-RSASSA-PSS keys, which
  //   hold the same key): the DER RSAPublicKey, i.e. the subjectPublicKey
  //   value, which must be one;
  //   ecPublicKey: the point as this device encodes it, uncompressed
  //   (04 || X || Y), also when the certificate holds it compressed; the point
  //   must be on one of the accepted curves.
  // False, *out cleared, for other key algorithms, malformed keys, an unknown
  // digest or a closed device.
  [[nodiscard]] bool keyHash(der::Input spki, std::vector<uint8_t>* out,
                             der::Input hash_oid_content = der::Input()) const;
  // The issuerNameHash of a CertID: the digest (SHA-1 when |hash_oid_content|
  // is empty) of |name_tlv|, the DER Name exactly as given. False, *out
  // cleared, when the name is not one whole SEQUENCE TLV, the digest is
  // unknown or the device closed.
  [[nodiscard]] bool nameHash(der::Input name_tlv, std::vector<uint8_t>* out,
                              der::Input hash_oid_content = der::Input()) const;

 private:
  bool DigestUnguarded(DigestAlgorithm algorithm, der::Input data,
                       std::vector<uint8_t>* out) const;
  bool VerifyUnguarded(der::Input signature_algorithm, der::Input spki, der::Input signed_bytes,
                       der::Input signature) const;
  bool KeyHashUnguarded(der::Input spki, DigestAlgorithm algorithm,
                        std::vector<uint8_t>* out) const;

  Semaphore* guard_;
  ossl_lib_ctx_st* libctx_ = nullptr;
  ossl_provider_st* default_provider_ = nullptr;
  ossl_provider_st* legacy_provider_ = nullptr;  // loaded only when needed
  evp_md_st* md_[kDigestAlgorithmCount] = {};  // null: not available
  ec_group_st* frp256v1_ = nullptr;
};

}  // namespace quillon::pki
