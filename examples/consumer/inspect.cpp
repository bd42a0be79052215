// inspect: prints the subject, issuer and serial of a DER or PEM certificate,
// or the issuer and entry count of a CRL, with the Quillon32 PKI objects.
#include <quillon32/quillon32.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: inspect FILE\n");
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  const auto* der = reinterpret_cast<const unsigned char*>(bytes.data());

  Certificate cert;
  if (cert.decode(der, bytes.size()) || cert.decodePEM(bytes.data(), bytes.size())) {
    std::printf("certificate\nsubject: %s\nissuer: %s\nserial: %s\nnot after: %s\n",
                cert.subject().toString().c_str(), cert.issuer().toString().c_str(),
                cert.serialNumber().toHex().c_str(),
                cert.notAfter().format("%b %d %H:%M:%S %Y GMT").c_str());
    return 0;
  }
  Buffer body(der, bytes.size());
  body.normaliseToDER();
  CertificateList crl;
  if (crl.decode(body.data(), body.size())) {
    std::printf("crl\nissuer: %s\nentries: %zu\nthis update: %s\n",
                crl.issuer().toString().c_str(), crl.entryCount(), crl.thisUpdate().text());
    return 0;
  }
  std::fprintf(stderr, "inspect: %s is neither a certificate nor a CRL\n", argv[1]);
  return 1;
}
