// Signature checks of the PKI objects, always over the bytes as received
// (never a re-encoding), and the CertID hashes of OCSP.
#pragma once

#include <vector>

#include "pki/crypto_device.h"
#include "quillon32/attribute_certificate.h"
#include "quillon32/certificate.h"
#include "quillon32/certificate_list.h"
#include "quillon32/ocsp_response.h"

namespace quillon::pki {

// True when |cert|'s signature verifies with |issuer|'s public key.
bool VerifyCertificate(const CryptoDevice& device, const Certificate& cert, const Certificate& issuer);
// True when |crl|'s signature verifies with |issuer|'s public key.
bool VerifyCrl(const CryptoDevice& device, const CertificateList& crl, const Certificate& issuer);
// True when |ac|'s signature verifies with |issuer|'s public key.
bool VerifyAttributeCertificate(const CryptoDevice& device, const AttributeCertificate& ac,
                                const Certificate& issuer);
// True when |response|'s signature verifies with |signer|'s public key.
bool VerifyBasicOcspResponse(const CryptoDevice& device, const BasicOCSPResponse& response,
                             const Certificate& signer);

// The issuerNameHash and issuerKeyHash of a CertID for certificates issued
// by |issuer|, with the digest |hash_oid| (dotted; SHA-1 when null).
bool CertIdHashes(const CryptoDevice& device, const Certificate& issuer, const char* hash_oid,
                  std::vector<uint8_t>* name_hash, std::vector<uint8_t>* key_hash);

}  // namespace quillon::pki
