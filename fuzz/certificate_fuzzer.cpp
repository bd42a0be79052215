// Certificate decoding: every accessor of a decoded certificate, its copy and
// its re-encoding must behave on any input; and the peek at a certificate's
// issuer must accept exactly what decoding accepts and find the same issuer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <string>
#include <vector>

#include "pki/certificate_parts.h"
#include "pki/der.h"
#include "quillon32/certificate.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Certificate c;
  const bool decoded = c.decode(data, size);
  std::string issuer_text;
  if (quillon::pki::PeekCertificateIssuerText(quillon::der::Input(data, size), &issuer_text) !=
      decoded) {
    std::abort();
  }
  if (!decoded) return 0;
  if (issuer_text != c.issuer().toString()) std::abort();
  (void)c.subject().toString();
  (void)c.issuer().toString();
  (void)c.serialNumber().toHex();
  (void)c.notBefore().text();
  AuthorityKeyIdentifier aki;
  (void)c.authorityKeyIdentifier(&aki);
  std::vector<unsigned char> ski;
  (void)c.subjectKeyIdentifier(&ski);
  unsigned ku = 0;
  (void)c.keyUsage(&ku);
  std::vector<std::string> eku;
  (void)c.extendedKeyUsage(&eku);
  bool ca = false;
  int path = 0;
  (void)c.basicConstraints(&ca, &path);
  std::vector<DistributionPoint> dps;
  if (c.crlDistributionPoints(&dps)) {
    for (const auto& dp : dps) (void)dp.name.encode();
  }
  std::vector<std::string> uris;
  (void)c.authorityInfoAccess("1.3.6.1.5.5.7.48.1", &uris);

  const Certificate copy = c;
  if (!(copy == c)) std::abort();
  // The DER form must decode again to the same certificate.
  const std::vector<unsigned char> der = c.encode();
  Certificate again;
  if (!again.decode(der.data(), der.size()) || !(again == c) || !again.isStrictDER()) std::abort();
  return 0;
}
