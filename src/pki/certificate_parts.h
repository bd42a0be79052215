// The one reader of X.509 certificates: it walks and checks every element
// of a certificate, leaving views into its bytes. Certificate::decode
// materialises an object from what it leaves; look-ups that only need an
// element or two (the issuer name of a certificate a caller asks about)
// stop there and allocate nothing for DER input.
#pragma once

#include <cstdint>
#include <vector>

#include "pki/der.h"
#include "quillon32/x500_time.h"

namespace quillon::pki {

// The elements of a certificate, as views into the bytes read.
struct CertificateParts {
  der::Input tbs;             // the TBSCertificate element
  der::Input tbs_content;     // its content
  der::Input sig_alg;         // signatureAlgorithm, whole
  der::Input sig_value;       // signatureValue bits
  uint8_t sig_unused_bits = 0;
  int version = 1;            // 1, 2 or 3
  der::Input serial_content;  // serialNumber content octets (not empty)
  der::Input issuer;          // issuer Name element
  der::Input subject;         // subject Name element
  X500Time not_before, not_after;
  der::Input spki;            // subjectPublicKeyInfo, whole
  der::Input public_key;      // subjectPublicKey bits
  der::Input key_alg_oid;     // the key algorithm's OID content
  bool has_extensions = false;
  der::Input extensions;      // content of the Extensions SEQUENCE when present
};

// Reads a certificate in DER and checks all Certificate::decode checks: the
// structure, version rules, a usable serial, the names, the times, the
// algorithm identifiers, the key and the extensions (well formed, none
// repeated). |checked_strict| tells that |der| was found to be strict DER
// as a whole, which its names then are too. False when any check fails;
// |out| is then unspecified.
[[nodiscard]] bool ReadCertificateParts(der::Input der, bool checked_strict, CertificateParts* out);

// How Certificate::decode takes its input, DER or BER: |*der_form| is the
// input itself when it is strict DER, else its DER rewrite held in
// |*rewrite|; for BER input |*received_tbs| is the TBSCertificate element as
// it arrived (what a signature covers); for DER input it and |*rewrite| are
// left empty.
// False when the input is no single constructed element readable that way.
[[nodiscard]] bool CertificateDerForm(der::Input input, std::vector<uint8_t>* rewrite,
                                      der::Input* der_form, der::Input* received_tbs);

// True exactly when Certificate::decode accepts |cert|. |*issuer| is then its
// issuer Name element in DER: a view into |cert|, whose elements are then
// all strict DER, or into |*rewrite| when the input was BER (|*rewrite| is
// left empty for DER input).
[[nodiscard]] bool PeekCertificateIssuer(der::Input cert, der::Input* issuer,
                                         std::vector<uint8_t>* rewrite);

}  // namespace quillon::pki
