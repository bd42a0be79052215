// Signature checks of certificates, CRLs and OCSP responses over the bytes as
// received, on real objects of each algorithm family, and the CertID hashes.
#include "pki/verify.h"

#include <gtest/gtest.h>
#include <openssl/ocsp.h>

#include <string>
#include <vector>

#include "quillon32/buffer.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using quillon::pki::CryptoDevice;
using Bytes = std::vector<uint8_t>;

// A file of the test data as DER, PEM unwrapped.
Bytes Load(const std::string& relative) {
  Buffer b(qt::ReadFile(qt::TestDataPath(relative)));
  EXPECT_TRUE(b.normaliseToDER()) << relative;
  return b.bytes();
}

template <class T>
T Decoded(const Bytes& der) {
  T object;
  EXPECT_TRUE(object.decode(der.data(), der.size()));
  return object;
}

Certificate Pkits(const std::string& name) {
  return Decoded<Certificate>(Load("nist-pkits/certs/" + name + ".crt"));
}

class Verify : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(device_.open(nullptr, nullptr, 0)); }
  CryptoDevice device_;
};

// PKITS: valid signatures, a wrong issuer key, a CA certificate whose
// signature (and unused-bits octet) is spoilt, DSA (not offered), and empty
// objects.
TEST_F(Verify, PkitsCertificatesAndCrls) {
  const Certificate anchor = Pkits("TrustAnchorRootCertificate");
  const Certificate good_ca = Pkits("GoodCACert");
  const Certificate ee = Pkits("ValidCertificatePathTest1EE");
  EXPECT_TRUE(VerifyCertificate(device_, anchor, anchor));
  EXPECT_TRUE(VerifyCertificate(device_, good_ca, anchor));
  EXPECT_TRUE(VerifyCertificate(device_, ee, good_ca));
  EXPECT_FALSE(VerifyCertificate(device_, ee, anchor));
  EXPECT_FALSE(VerifyCertificate(device_, Pkits("BadSignedCACert"), anchor));
  EXPECT_FALSE(VerifyCertificate(device_, Pkits("ValidDSASignaturesTest4EE"), Pkits("DSACACert")));
  EXPECT_FALSE(VerifyCertificate(device_, Certificate(), anchor));
  EXPECT_FALSE(VerifyCertificate(device_, good_ca, Certificate()));

  const auto crl = Decoded<CertificateList>(Load("nist-pkits/crls/GoodCACRL.crl"));
  EXPECT_TRUE(VerifyCrl(device_, crl, good_ca));
  EXPECT_FALSE(VerifyCrl(device_, crl, anchor));
  const auto bad = Decoded<CertificateList>(Load("nist-pkits/crls/BadCRLSignatureCACRL.crl"));
  EXPECT_FALSE(VerifyCrl(device_, bad, Pkits("BadCRLSignatureCACert")));
  EXPECT_FALSE(VerifyCrl(device_, CertificateList(), good_ca));
}

// Real CA CRLs, each algorithm family once; a changed signature byte breaks
// every one that verifies.
TEST_F(Verify, RealCrlsOfEachAlgorithm) {
  const struct { const char* crl; const char* issuer; bool verifies; } kCases[] = {
      {"DSS-2039/crl.der", "DSS-2039/ca.pem", true},  // sha256WithRSAEncryption
      {"belgium2.crl", "belgiumrs2.crt", true},       // sha1WithRSAEncryption, v1
      {"d-trust_root_ca_1_2017.crl", "D-TRUST_Root_CA_1_2017.crt", true},  // RSA-PSS, 4096 bits
      {"CA-5358AA45-Full.crl", "CA-Justice-ECDSA-261217.cer", true},      // P-256
      {"EE-GovCA2018.crl", "EE-GovCA2018.pem.crt", true},                 // P-521
      // The same issuer name on another key; the wrong key of the family;
      // a key of the other family.
      {"realts2019.crl", "realts2019.crt", false},
      {"EE-GovCA2018.crl", "CA-Justice-ECDSA-261217.cer", false},
      {"CA-5358AA45-Full.crl", "DSS-2039/ca.pem", false},
      {"DSS-2039/crl.der", "CA-Justice-ECDSA-261217.cer", false},
  };
  const std::string dir = "real-crls/dss-eu-ca-crls/";
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.crl) + " by " + c.issuer);
    Bytes der = Load(dir + c.crl);
    const auto issuer = Decoded<Certificate>(Load(dir + c.issuer));
    EXPECT_EQ(VerifyCrl(device_, Decoded<CertificateList>(der), issuer), c.verifies);
    der.back() ^= 0x01;  // in the signature
    EXPECT_FALSE(VerifyCrl(device_, Decoded<CertificateList>(der), issuer));
  }
}

// A response verifies under its signer's certificate, the CA's or a
// delegated responder's, and not under the CA's when a delegate signed it.
TEST_F(Verify, OcspResponsesByCaAndDelegate) {
  const auto pki = qt::MakePki(qt::KeyType::kEcP256);
  const X509* ca = pki.intermediate.get();
  const auto& responder_key = qt::PooledKey(qt::KeyType::kEcP256, 3);
  const auto responder = qt::MakeOcspResponderCert(ca, pki.intermediateKey, responder_key);
  const auto verifies = [&](const X509* signer_cert, const qt::Key& signer_key, const X509* with) {
    qt::OcspSpec made;
    made.responses.push_back({.issuerCert = ca, .serial = 7});
    made.signerCert = signer_cert;
    made.signerKey = signer_key;
    const Bytes der = qt::MakeOcspDer(made);
    OCSPResponse response;
    BasicOCSPResponse basic;
    EXPECT_TRUE(response.decode(der.data(), der.size()) && response.basicResponse(&basic));
    return VerifyBasicOcspResponse(device_, basic, Decoded<Certificate>(qt::Der(with)));
  };
  EXPECT_TRUE(verifies(ca, pki.intermediateKey, ca));
  EXPECT_TRUE(verifies(responder.get(), responder_key, responder.get()));
  EXPECT_FALSE(verifies(responder.get(), responder_key, ca));
}

// The CertID hashes of real issuers (RSA, P-256 and P-521 keys) agree with
// OpenSSL's own CertID for SHA-1 and SHA-256.
TEST_F(Verify, CertIdHashesMatchOpenSsl) {
  for (const char* file : {"nist-pkits/certs/TrustAnchorRootCertificate.crt",
                           "real-crls/dss-eu-ca-crls/CA-Justice-ECDSA-261217.cer",
                           "real-crls/dss-eu-ca-crls/EE-GovCA2018.pem.crt"}) {
    const Bytes der = Load(file);
    const auto issuer = Decoded<Certificate>(der);
    const qt::X509Ptr x509 = qt::ParseCert(der);
    ASSERT_TRUE(x509) << file;
    for (const auto& [oid, md] : {std::pair{"1.3.14.3.2.26", EVP_sha1()},
                                  std::pair{"2.16.840.1.101.3.4.2.1", EVP_sha256()}}) {
      SCOPED_TRACE(std::string(file) + " " + oid);
      Bytes name_hash, key_hash;
      ASSERT_TRUE(quillon::pki::CertIdHashes(device_, issuer, oid, &name_hash, &key_hash));
      OCSP_CERTID* id = OCSP_cert_to_id(md, nullptr, x509.get());
      ASN1_OCTET_STRING *name = nullptr, *key = nullptr;
      ASSERT_EQ(OCSP_id_get0_info(&name, nullptr, &key, nullptr, id), 1);
      EXPECT_EQ(name_hash, Bytes(name->data, name->data + name->length));
      EXPECT_EQ(key_hash, Bytes(key->data, key->data + key->length));
      OCSP_CERTID_free(id);
    }
  }
  Bytes name_hash, key_hash;
  EXPECT_FALSE(quillon::pki::CertIdHashes(device_, Certificate(), nullptr, &name_hash, &key_hash));
}

}  // namespace
