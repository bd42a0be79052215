// Certificate: an X.509 v1-v3 certificate.
//
// The object owns the certificate's DER bytes; the raw views it hands out
// (to-be-signed part, issuer, subject, public key, signature) point into
// them. When the input arrived in BER it is kept in its DER form for
// encoding, and the to-be-signed bytes are kept exactly as received, since
// the signature covers those.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "quillon32/big_integer.h"
#include "quillon32/byte_view.h"
#include "quillon32/export.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/x500_time.h"

class QUILLON32_API Certificate {
 public:
  Certificate();
  Certificate(const Certificate& other);
  Certificate& operator=(const Certificate& other);
  Certificate(Certificate&&) noexcept;
  Certificate& operator=(Certificate&&) noexcept;
  ~Certificate();

  // Decodes a certificate in DER or BER. False, and the object left empty,
  // on malformed input (trailing bytes included).
  bool decode(const unsigned char* der, size_t length);
  // Decodes the first PEM block labelled CERTIFICATE in |text|.
  bool decodePEM(const char* text, size_t length);
  bool isDecoded() const;

  // The DER encoding (for a DER input, the input bytes).
  std::vector<unsigned char> encode() const;
  ByteView der() const;
  // True when the received encoding was strict DER.
  bool isStrictDER() const;

  int version() const;  // 1, 2 or 3
  const BigInteger& serialNumber() const;
  const Name& issuer() const;
  const Name& subject() const;
  const X500Time& notBefore() const;
  const X500Time& notAfter() const;

  // Raw elements, as received.
  ByteView tbsCertificate() const;      // the signed bytes
  ByteView signatureAlgorithm() const;  // AlgorithmIdentifier element of the outer signature
  ByteView signatureValue() const;      // the signature bits (BIT STRING content less its first octet)
  int signatureUnusedBits() const;      // unused bits of that BIT STRING (0 for any valid signature)
  ByteView issuerBytes() const;         // Name element
  ByteView subjectBytes() const;        // Name element
  ByteView subjectPublicKeyInfo() const;  // SubjectPublicKeyInfo element
  ByteView subjectPublicKey() const;    // subjectPublicKey BIT STRING bits
  // Dotted OID of the public key algorithm, e.g. "1.2.840.113549.1.1.1".
  std::string publicKeyAlgorithm() const;

  // Extensions, in encoded order.
  const std::vector<Extension>& extensions() const;
  // The extension with |oid|, or null.
  const Extension* extension(const char* oid) const;

  // The getters below return false, writing nothing, when an output
  // pointer is null.
  // Authority key identifier ("2.5.29.35"); false when absent or malformed.
  bool authorityKeyIdentifier(AuthorityKeyIdentifier* out) const;
  // Subject key identifier ("2.5.29.14"); false when absent or malformed.
  bool subjectKeyIdentifier(std::vector<unsigned char>* out) const;
  // Key usage ("2.5.29.15") as a KeyUsageBit mask; false when absent or malformed.
  bool keyUsage(unsigned* bits) const;
  // Extended key usage ("2.5.29.37") purpose OIDs; false when absent or malformed.
  bool extendedKeyUsage(std::vector<std::string>* purposes) const;
  bool hasExtendedKeyUsage(const char* purpose) const;
  // Basic constraints ("2.5.29.19"); false when absent or malformed.
  bool basicConstraints(bool* ca, int* pathLength) const;
  // CRL distribution points ("2.5.29.31"); false when absent or malformed.
  bool crlDistributionPoints(std::vector<DistributionPoint>* out) const;
  // Access locations of authorityInfoAccess ("1.3.6.1.5.5.7.1.1") with the
  // given access method (OCSP "1.3.6.1.5.5.7.48.1"), URIs only.
  bool authorityInfoAccess(const char* method, std::vector<std::string>* uris) const;

  // Equality of the encodings.
  bool operator==(const Certificate& other) const;
  bool operator!=(const Certificate& other) const { return !(*this == other); }

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};
