// The one reader of X.509 certificates: it walks and checks every element
// of a certificate, leaving views into its bytes. Certificate::decode
// materialises an object from what it leaves; look-ups that only need an
// element or two (the issuer name of a certificate a caller asks about)
// stop there and allocate nothing for DER input.
#pragma once

#include <cstdint>
#include <string>
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

// What is known of the bytes ReadCertificateParts reads.
enum class DerKnown {
  kStrict,     // found to be strict DER as a whole
  kRewritten,  // the DER rewrite of a BER input
  // Not yet checked: the read also proves the bytes strict DER, and fails
  // when they are not (as it fails when they are no certificate). DER, the
  // usual input, is then read once instead of walked and then read.
  kUnchecked,
};

// Reads a certificate in DER and checks all Certificate::decode checks: the
// structure, version rules, a usable serial, the names, the times, the
// algorithm identifiers, the key and the extensions (well formed, none
// repeated). With |check_issuer| false the issuer Name element is left
// unchecked, for a caller that checks it by printing it. False when any
// check fails; |out| is then unspecified.
[[nodiscard]] bool ReadCertificateParts(der::Input der, DerKnown known, CertificateParts* out,
                                        bool check_issuer = true);

// Moves the views of |parts| from bytes at |from| to a copy of them at |to|.
void MoveCertificateParts(CertificateParts* parts, const uint8_t* from, const uint8_t* to);

// How Certificate::decode takes input that is not strict DER: |*der_form| is
// the input itself when it is strict DER after all, else its DER rewrite
// held in |*rewrite|; for BER input |*received_tbs| is the TBSCertificate
// element as it arrived (what a signature covers); for DER input it and
// |*rewrite| are left empty.
// False when the input is no single constructed element readable that way.
[[nodiscard]] bool CertificateDerForm(der::Input input, std::vector<uint8_t>* rewrite,
                                      der::Input* der_form, der::Input* received_tbs);

// True exactly when Certificate::decode accepts |cert|; |*text| is then its
// issuer name printed by the one name printer, as Name::toString() prints it.
[[nodiscard]] bool PeekCertificateIssuerText(der::Input cert, std::string* text);

}  // namespace quillon::pki
