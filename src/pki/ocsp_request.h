// The OCSP request the library sends: one certificate, asked about by a SHA-1
// CertID, unsigned, with no nonce and no extensions.
//
// The CertID hashes come from the crypto device (CryptoDevice::nameHash and
// CryptoDevice::keyHash over the issuer certificate); this encoder only lays
// them out.
#pragma once

#include <cstdint>
#include <vector>

#include "pki/der.h"
#include "quillon32/big_integer.h"

namespace quillon::pki {

// SHA-1 digests are 20 octets; hashes of another length are refused.
inline constexpr size_t kSha1Length = 20;

// DER OCSPRequest for the certificate with |serial| issued by the CA whose
// subject name and public key hash to |issuer_name_hash| and
// |issuer_key_hash| (SHA-1). The serial is written in its minimal form.
// False, |out| cleared, when a hash is not 20 octets long.
[[nodiscard]] bool EncodeOcspRequest(der::Input issuer_name_hash, der::Input issuer_key_hash,
                                     const BigInteger& serial, std::vector<uint8_t>* out);

}  // namespace quillon::pki
