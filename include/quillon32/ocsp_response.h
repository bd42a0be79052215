// OCSPResponse and BasicOCSPResponse: the OCSP response of RFC 6960.
//
// OCSPResponse is the envelope a responder sends: a status and, when
// successful, the typed response octets. BasicOCSPResponse is the
// id-pkix-ocsp-basic response inside it: the signed ResponseData with the
// responder, producedAt and one SingleResponse per certificate asked about,
// the signature and the certificates the responder chose to include.
//
// Both objects own their DER bytes; the raw views they hand out point into
// them and stay valid while the object lives and is not modified. When a
// basic response arrived in BER it is kept in its DER form for encoding, and
// the tbsResponseData bytes are kept exactly as received, since the
// signature covers those.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "quillon32/big_integer.h"
#include "quillon32/byte_view.h"
#include "quillon32/certificate.h"
#include "quillon32/export.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/x500_time.h"

// CertID ::= SEQUENCE { hashAlgorithm AlgorithmIdentifier,
//   issuerNameHash OCTET STRING, issuerKeyHash OCTET STRING,
//   serialNumber CertificateSerialNumber }
struct QUILLON32_API OCSPCertID {
  // The whole AlgorithmIdentifier element, as received.
  std::vector<unsigned char> hashAlgorithm;
  // Its algorithm as dotted text, e.g. "1.3.14.3.2.26" for SHA-1.
  std::string hashAlgorithmOID;
  std::vector<unsigned char> issuerNameHash;
  std::vector<unsigned char> issuerKeyHash;
  BigInteger serialNumber;
};

// SingleResponse ::= SEQUENCE { certID CertID, certStatus CertStatus,
//   thisUpdate GeneralizedTime, nextUpdate [0] EXPLICIT GeneralizedTime OPTIONAL,
//   singleExtensions [1] EXPLICIT Extensions OPTIONAL }
struct QUILLON32_API OCSPSingleResponse {
  // The CertStatus CHOICE; the values are its context tag numbers.
  enum CertStatus : int { kGood = 0, kRevoked = 1, kUnknown = 2 };

  OCSPCertID certID;
  CertStatus certStatus = kGood;
  // For kRevoked: revocationTime, and the CRLReason (-1 when none is given
  // or it lies outside the enumeration).
  X500Time revocationTime;
  int revocationReason = -1;
  X500Time thisUpdate;
  bool hasNextUpdate = false;
  X500Time nextUpdate;  // the no-time value when absent
  // singleExtensions, in encoded order (e.g. invalidityDate "2.5.29.24",
  // CrlID "1.3.6.1.5.5.7.48.1.3").
  std::vector<Extension> singleExtensions;

  // The single extension with |oid|, or null.
  const Extension* extension(const char* oid) const;
};

class QUILLON32_API BasicOCSPResponse {
 public:
  using CertID = OCSPCertID;
  using SingleResponse = OCSPSingleResponse;

  // ResponderID ::= CHOICE { byName [1] Name, byKey [2] KeyHash }; the
  // values are the context tag numbers.
  enum ResponderIDType : int { kNone = 0, kByName = 1, kByKey = 2 };

  BasicOCSPResponse();
  BasicOCSPResponse(const BasicOCSPResponse& other);
  BasicOCSPResponse& operator=(const BasicOCSPResponse& other);
  BasicOCSPResponse(BasicOCSPResponse&&) noexcept;
  BasicOCSPResponse& operator=(BasicOCSPResponse&&) noexcept;
  ~BasicOCSPResponse();

  // Decodes a BasicOCSPResponse in DER or BER. False, and the object left
  // empty, on malformed input (an undecodable included certificate and
  // trailing bytes included).
  bool decode(const unsigned char* der, size_t length);
  bool isDecoded() const;
  // The DER encoding (for a DER input, the input bytes).
  std::vector<unsigned char> encode() const;
  ByteView der() const;
  // True when the received encoding was strict DER.
  bool isStrictDER() const;

  // The tbsResponseData element as received: the signed bytes.
  ByteView tbsResponseData() const;
  int version() const;  // 1 (v1, the only version defined); 0 when empty

  ResponderIDType responderIDType() const;
  // byName: the Name, and its element as received.
  const Name& responderName() const;
  ByteView responderNameBytes() const;
  // byKey: the KeyHash octets (SHA-1 of the responder's public key).
  ByteView responderKeyHash() const;

  const X500Time& producedAt() const;
  // The single responses, in encoded order (possibly none).
  const std::vector<OCSPSingleResponse>& responses() const;
  // responseExtensions, in encoded order (e.g. the nonce "1.3.6.1.5.5.7.48.1.2").
  const std::vector<Extension>& responseExtensions() const;
  const Extension* responseExtension(const char* oid) const;

  // The outer AlgorithmIdentifier element, and its algorithm as dotted text.
  ByteView signatureAlgorithm() const;
  std::string signatureAlgorithmOID() const;
  // The signature bits (BIT STRING content less its first octet).
  ByteView signatureValue() const;

  // The certificates of the certs field, in encoded order (none when absent).
  const std::vector<Certificate>& certs() const;

  // Equality of the encodings.
  bool operator==(const BasicOCSPResponse& other) const;
  bool operator!=(const BasicOCSPResponse& other) const { return !(*this == other); }

  struct Impl;

 private:
  friend class OCSPResponse;  // wraps the bytes as received
  std::unique_ptr<Impl> impl_;
};

class QUILLON32_API OCSPResponse {
 public:
  // OCSPResponseStatus; 4 is not used and other values are refused.
  enum Status : int {
    kSuccessful = 0,
    kMalformedRequest = 1,
    kInternalError = 2,
    kTryLater = 3,
    kSigRequired = 5,
    kUnauthorized = 6,
  };

  // id-pkix-ocsp-basic, the one response type the library reads.
  static constexpr const char* kBasicResponseType = "1.3.6.1.5.5.7.48.1.1";

  OCSPResponse();
  OCSPResponse(const OCSPResponse& other);
  OCSPResponse& operator=(const OCSPResponse& other);
  OCSPResponse(OCSPResponse&&) noexcept;
  OCSPResponse& operator=(OCSPResponse&&) noexcept;
  ~OCSPResponse();

  // Decodes an OCSPResponse in DER or BER. False, and the object left empty,
  // on malformed input or an undefined responseStatus. The response octets
  // are not decoded here (see basicResponse()).
  bool decode(const unsigned char* der, size_t length);
  // Makes this a successful id-pkix-ocsp-basic response carrying |basic|'s
  // DER. False, and the object left empty, when |basic| is empty.
  bool fromBasicResponse(const BasicOCSPResponse& basic);
  bool isDecoded() const;
  // The DER encoding (for a DER input, the input bytes). The response octets
  // are carried as received.
  std::vector<unsigned char> encode() const;
  ByteView der() const;
  bool isStrictDER() const;

  // responseStatus, a Status value; -1 when empty.
  int responseStatus() const;
  bool hasResponseBytes() const;
  // responseType as dotted text; "" without responseBytes.
  std::string responseType() const;
  // The response OCTET STRING content; empty without responseBytes.
  ByteView response() const;

  // Decodes the response octets into |out| when the type is
  // id-pkix-ocsp-basic. False (and |out| emptied) without responseBytes, for
  // another type, or when the octets do not decode.
  bool basicResponse(BasicOCSPResponse* out) const;

  // Equality of the encodings.
  bool operator==(const OCSPResponse& other) const;
  bool operator!=(const OCSPResponse& other) const { return !(*this == other); }

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};
