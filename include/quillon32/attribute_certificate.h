// AttributeCertificate: an attribute certificate of RFC 5755.
//
// The library uses an attribute certificate to find the CA that issued it:
// by the issuer name and the authority key identifier, and by verifying its
// signature with candidate keys. The holder and the attributes are kept as
// raw elements.
//
// The object owns its DER bytes; the raw views it hands out point into them.
// When the input arrived in BER it is kept in its DER form for encoding, and
// the acinfo bytes are kept exactly as received, since the signature covers
// those.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "quillon32/big_integer.h"
#include "quillon32/byte_view.h"
#include "quillon32/export.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/x500_time.h"

class QUILLON32_API AttributeCertificate {
 public:
  AttributeCertificate();
  AttributeCertificate(const AttributeCertificate& other);
  AttributeCertificate& operator=(const AttributeCertificate& other);
  AttributeCertificate(AttributeCertificate&&) noexcept;
  AttributeCertificate& operator=(AttributeCertificate&&) noexcept;
  ~AttributeCertificate();

  // Decodes a v2 attribute certificate in DER or BER. False, and the object
  // left empty, on malformed input (trailing bytes included).
  bool decode(const unsigned char* der, size_t length);
  bool isDecoded() const;
  // The DER encoding (for a DER input, the input bytes).
  std::vector<unsigned char> encode() const;
  ByteView der() const;
  bool isStrictDER() const;

  int version() const;  // 2; 0 when empty

  // The issuer's directory name: the first directoryName of the v2Form
  // issuerName (or of the v1Form GeneralNames). hasIssuerName() is false, and
  // issuer() empty, when the issuer is named only otherwise (for example by
  // baseCertificateID).
  bool hasIssuerName() const;
  const Name& issuer() const;
  ByteView issuerBytes() const;  // the Name element

  const BigInteger& serialNumber() const;
  // attrCertValidityPeriod.
  const X500Time& notBefore() const;
  const X500Time& notAfter() const;

  // Raw elements, as received.
  ByteView acinfo() const;              // the signed bytes
  ByteView holder() const;              // Holder element
  ByteView issuerField() const;         // AttCertIssuer element
  ByteView attributes() const;          // SEQUENCE OF Attribute element
  ByteView signatureAlgorithm() const;  // outer AlgorithmIdentifier element
  ByteView signatureValue() const;      // the signature bits

  // Extensions, in encoded order.
  const std::vector<Extension>& extensions() const;
  const Extension* extension(const char* oid) const;
  // Authority key identifier ("2.5.29.35"); false when absent or malformed.
  bool authorityKeyIdentifier(AuthorityKeyIdentifier* out) const;

  // Equality of the encodings.
  bool operator==(const AttributeCertificate& other) const;
  bool operator!=(const AttributeCertificate& other) const { return !(*this == other); }

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};
