// Certificate and CRL extension values used by the library: authority key
// identifier, general names and CRL distribution point names.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "quillon32/big_integer.h"
#include "quillon32/export.h"
#include "quillon32/name.h"

// GeneralName (RFC 5280 4.2.1.6) as its CHOICE tag number and content.
struct QUILLON32_API GeneralName {
  enum Kind : int {
    kOtherName = 0, kRfc822Name = 1, kDnsName = 2, kX400Address = 3, kDirectoryName = 4,
    kEdiPartyName = 5, kUniformResourceIdentifier = 6, kIpAddress = 7, kRegisteredId = 8,
  };
  int kind = kUniformResourceIdentifier;
  // For directoryName: the Name element (SEQUENCE); otherwise the content
  // octets of the implicitly tagged value (the text of a URI, e-mail or DNS name).
  std::vector<unsigned char> value;

  std::string text() const { return std::string(value.begin(), value.end()); }
  // The directory name, decoded; false when not a directoryName or malformed.
  bool directoryName(Name* out) const;
  bool operator==(const GeneralName&) const = default;
};

// Decodes GeneralNames content (the elements inside the SEQUENCE or the
// implicitly tagged field); false on malformed input.
QUILLON32_API bool decodeGeneralNames(const unsigned char* content, size_t length,
                                      std::vector<GeneralName>* out);

// AuthorityKeyIdentifier ::= SEQUENCE { keyIdentifier [0] OPTIONAL,
//   authorityCertIssuer [1] GeneralNames OPTIONAL,
//   authorityCertSerialNumber [2] CertificateSerialNumber OPTIONAL }
class QUILLON32_API AuthorityKeyIdentifier {
 public:
  AuthorityKeyIdentifier() = default;
  // Decodes the extension value (the SEQUENCE). False, object unchanged, on
  // malformed input.
  bool decode(const unsigned char* der, size_t length);
  std::vector<unsigned char> encode() const;

  bool hasKeyIdentifier() const { return hasKeyIdentifier_; }
  const std::vector<unsigned char>& keyIdentifier() const { return keyIdentifier_; }
  void setKeyIdentifier(const unsigned char* id, size_t length);
  const std::vector<GeneralName>& authorityCertIssuer() const { return issuer_; }
  bool hasSerialNumber() const { return hasSerial_; }
  const BigInteger& serialNumber() const { return serial_; }

  bool operator==(const AuthorityKeyIdentifier& o) const;

 private:
  bool hasKeyIdentifier_ = false;
  std::vector<unsigned char> keyIdentifier_;
  std::vector<GeneralName> issuer_;
  bool hasSerial_ = false;
  BigInteger serial_;
};

// DistributionPointName ::= CHOICE { fullName [0] GeneralNames,
//   nameRelativeToCRLIssuer [1] RelativeDistinguishedName }
class QUILLON32_API DistributionPointName {
 public:
  DistributionPointName() = default;
  // A fullName holding one uniformResourceIdentifier.
  explicit DistributionPointName(const char* uri);

  // Decodes the CHOICE element ([0] or [1], constructed). False, object
  // unchanged, on malformed input.
  bool decode(const unsigned char* der, size_t length);
  std::vector<unsigned char> encode() const;

  bool isFullName() const { return !relative_; }
  const std::vector<GeneralName>& fullName() const { return fullName_; }
  void addURI(const char* uri);
  // The uniformResourceIdentifier entries of the full name, in order.
  std::vector<std::string> uris() const;
  const Name::RDN& nameRelativeToCRLIssuer() const { return rdn_; }

  bool operator==(const DistributionPointName& o) const = default;

 private:
  bool relative_ = false;
  std::vector<GeneralName> fullName_;
  Name::RDN rdn_;
};

// One DistributionPoint of a certificate's cRLDistributionPoints extension.
struct QUILLON32_API DistributionPoint {
  bool hasName = false;
  DistributionPointName name;
  bool hasReasons = false;
  unsigned reasons = 0;  // ReasonFlags bits, bit 0 = unused(0) ... as in the BIT STRING
  std::vector<GeneralName> crlIssuer;
};

// KeyUsage bits (RFC 5280 4.2.1.3) as a mask: bit n set for KeyUsage bit n.
enum KeyUsageBit : unsigned {
  kDigitalSignature = 1u << 0, kNonRepudiation = 1u << 1, kKeyEncipherment = 1u << 2,
  kDataEncipherment = 1u << 3, kKeyAgreement = 1u << 4, kKeyCertSign = 1u << 5,
  kCRLSign = 1u << 6, kEncipherOnly = 1u << 7, kDecipherOnly = 1u << 8,
};

// One extension as found: its OID, criticality and value octets.
struct QUILLON32_API Extension {
  std::string oid;
  bool critical = false;
  std::vector<unsigned char> value;
};
