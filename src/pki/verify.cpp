#include "pki/verify.h"

#include "pki/der.h"
#include "pki/x509_common.h"

namespace quillon::pki {
namespace {

bool Check(const CryptoDevice& device, ByteView signed_bytes, ByteView algorithm,
           ByteView signature, const Certificate& signer) {
  if (!signer.isDecoded() || signed_bytes.empty() || algorithm.empty() || signature.empty())
    return false;
  return device.verify(ToInput(algorithm), ToInput(signer.subjectPublicKeyInfo()),
                       ToInput(signed_bytes), ToInput(signature));
}

}  // namespace

bool VerifyCertificate(const CryptoDevice& device, const Certificate& cert, const Certificate& issuer) {
  if (!cert.isDecoded() || cert.signatureUnusedBits() != 0) return false;
  return Check(device, cert.tbsCertificate(), cert.signatureAlgorithm(), cert.signatureValue(), issuer);
}

bool VerifyCrl(const CryptoDevice& device, const CertificateList& crl, const Certificate& issuer) {
  if (!crl.isDecoded()) return false;
  return Check(device, crl.tbsCertList(), crl.signatureAlgorithm(), crl.signatureValue(), issuer);
}

bool VerifyAttributeCertificate(const CryptoDevice& device, const AttributeCertificate& ac,
                                const Certificate& issuer) {
  if (!ac.isDecoded()) return false;
  return Check(device, ac.acinfo(), ac.signatureAlgorithm(), ac.signatureValue(), issuer);
}

bool VerifyBasicOcspResponse(const CryptoDevice& device, const BasicOCSPResponse& response,
                             const Certificate& signer) {
  if (!response.isDecoded()) return false;
  return Check(device, response.tbsResponseData(), response.signatureAlgorithm(),
               response.signatureValue(), signer);
}

bool CertIdHashes(const CryptoDevice& device, const Certificate& issuer, const char* hash_oid,
                  std::vector<uint8_t>* name_hash, std::vector<uint8_t>* key_hash) {
  if (!issuer.isDecoded()) return false;
  std::vector<uint8_t> oid;
  if (hash_oid && !der::OidFromText(hash_oid, &oid)) return false;
  const der::Input oid_input = hash_oid ? der::Input(oid) : der::Input();
  // The issuer's name as it stands in the issuer certificate's subject field.
  return device.nameHash(ToInput(issuer.subjectBytes()), name_hash, oid_input) &&
         device.keyHash(ToInput(issuer.subjectPublicKeyInfo()), key_hash, oid_input);
}

}  // namespace quillon::pki
