#include "pki/ocsp_request.h"

namespace quillon::pki {

namespace {
constexpr const char* kSha1Oid = "1.3.14.3.2.26";
}  // namespace

// OCSPRequest ::= SEQUENCE { tbsRequest TBSRequest,
//   optionalSignature [0] EXPLICIT Signature OPTIONAL }
// TBSRequest ::= SEQUENCE { version [0] EXPLICIT Version DEFAULT v1,
//   requestorName [1] EXPLICIT GeneralName OPTIONAL,
//   requestList SEQUENCE OF Request,
//   requestExtensions [2] EXPLICIT Extensions OPTIONAL }
// Request ::= SEQUENCE { reqCert CertID,
//   singleRequestExtensions [0] EXPLICIT Extensions OPTIONAL }
// CertID ::= SEQUENCE { hashAlgorithm AlgorithmIdentifier,
//   issuerNameHash OCTET STRING, issuerKeyHash OCTET STRING,
//   serialNumber CertificateSerialNumber }
//
// Only tbsRequest.requestList is present, with a single Request holding only
// its CertID. The hash AlgorithmIdentifier carries NULL parameters, the form
// the common OCSP clients send; RFC 3279 2.1 has receivers accept it as well
// as absent parameters.
bool EncodeOcspRequest(der::Input issuer_name_hash, der::Input issuer_key_hash,
                       const BigInteger& serial, std::vector<uint8_t>* out) {
  out->clear();
  if (issuer_name_hash.size() != kSha1Length || issuer_key_hash.size() != kSha1Length) return false;
  const std::vector<uint8_t> serial_content = serial.toDerContent();
  der::Writer w(out);
  w.Open(der::kSequence);    // OCSPRequest
  w.Open(der::kSequence);    // TBSRequest
  w.Open(der::kSequence);    // requestList
  w.Open(der::kSequence);    // Request
  w.Open(der::kSequence);    // CertID
  w.Open(der::kSequence);    // hashAlgorithm
  if (!w.AddOid(kSha1Oid)) {
    out->clear();
    return false;
  }
  w.AddNull();
  w.Close();
  w.AddTLV(der::kOctetString, issuer_name_hash);
  w.AddTLV(der::kOctetString, issuer_key_hash);
  w.AddTLV(der::kInteger, der::Input(serial_content));
  w.Close();  // CertID
  w.Close();  // Request
  w.Close();  // requestList
  w.Close();  // TBSRequest
  w.Close();  // OCSPRequest
  return true;
}

}  // namespace quillon::pki
