// CertificateList: an X.509 CRL.
//
// Built for very large CRLs: decoding keeps the CRL's own bytes and an index
// of entry offsets, with no allocation per entry; entries are decoded on
// demand. A look-up by serial text answers in constant time after a one-time
// index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "quillon32/big_integer.h"
#include "quillon32/byte_view.h"
#include "quillon32/export.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/x500_time.h"

// One revoked-certificate entry, decoded.
struct QUILLON32_API CRLEntry {
  BigInteger serialNumber;
  X500Time revocationDate;
  // CRLReason ("2.5.29.21"), -1 when the entry has none or one outside
  // the enumeration.
  int reasonCode = -1;
  // invalidityDate ("2.5.29.24").
  bool hasInvalidityDate = false;
  X500Time invalidityDate;
  // All entry extensions, in encoded order.
  std::vector<Extension> extensions;
};

// IssuingDistributionPoint ("2.5.29.28").
struct QUILLON32_API IssuingDistributionPoint {
  bool hasDistributionPoint = false;
  DistributionPointName distributionPoint;
  bool onlyContainsUserCerts = false;
  bool onlyContainsCACerts = false;
  bool hasOnlySomeReasons = false;
  unsigned onlySomeReasons = 0;
  bool indirectCRL = false;
  bool onlyContainsAttributeCerts = false;
};

class QUILLON32_API CertificateList {
 public:
  CertificateList();
  CertificateList(const CertificateList& other);
  CertificateList& operator=(const CertificateList& other);
  CertificateList(CertificateList&&) noexcept;
  CertificateList& operator=(CertificateList&&) noexcept;
  ~CertificateList();

  // Decodes a CRL in DER or BER. False, and the object left empty, on
  // malformed input (a malformed entry or trailing bytes included). A caller
  // that wants to accept a body with bytes after the CRL (some servers append
  // a line break) passes only the first element.
  bool decode(const unsigned char* der, size_t length);
  // The same, taking the bytes of |der| instead of copying them: the quicker
  // way to decode a CRL just downloaded or read from a file, and half the
  // memory at the peak. On success the object holds them and |der| is left
  // empty; on failure |der| is left as it was.
  bool decode(std::vector<unsigned char>&& der);
  bool isDecoded() const;
  // The DER encoding (for a DER input, the input bytes).
  std::vector<unsigned char> encode() const;
  ByteView der() const;

  int version() const;  // 1 or 2
  const Name& issuer() const;
  const X500Time& thisUpdate() const;
  bool hasNextUpdate() const;
  const X500Time& nextUpdate() const;  // the no-time value when absent

  // Raw elements, as received.
  ByteView tbsCertList() const;
  ByteView signatureAlgorithm() const;
  // The signature octets (the BIT STRING without its unused-bits octet);
  // empty when the BIT STRING is not a whole number of octets, which no
  // signature algorithm produces.
  ByteView signatureValue() const;
  ByteView issuerBytes() const;

  // Revoked-certificate entries, in encoded order.
  size_t entryCount() const;
  // Decodes entry |index|; false when out of range or malformed.
  bool entry(size_t index, CRLEntry* out) const;
  // The serial of entry |index| printed with BigInteger::toHex().
  std::string entrySerialText(size_t index) const;
  // The index of the first entry, in encoded order, whose serial printed with
  // BigInteger::toHex() equals |serialText| exactly (case-sensitive, no
  // leading-zero normalisation); -1 when none. The serial index it uses is
  // built by decode(), so concurrent const calls are safe at once.
  long findSerial(const char* serialText) const;
  // Does nothing: decode() builds the serial index as it reads the entries.
  // Kept so that code written to build it ahead of sharing still compiles.
  // A copy keeps the index of the object it was copied from.
  void buildIndex() const;

  // CRL extensions, in encoded order.
  const std::vector<Extension>& extensions() const;
  const Extension* extension(const char* oid) const;
  bool authorityKeyIdentifier(AuthorityKeyIdentifier* out) const;
  bool issuingDistributionPoint(IssuingDistributionPoint* out) const;
  // expiredCertsOnCRL ("2.5.29.60"), a GeneralizedTime (UTCTime also read).
  bool expiredCertsOnCRL(X500Time* out) const;
  // cRLNumber ("2.5.29.20").
  bool crlNumber(BigInteger* out) const;

  // Bytes held by this object (DER, index and decoded header fields).
  size_t memoryUsage() const;

  bool operator==(const CertificateList& other) const;

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};
