// Signature checks of certificates, CRLs and OCSP responses over the bytes
// as received, and the CertID hashes.
#include "pki/verify.h"

#include <gtest/gtest.h>
#include <openssl/ocsp.h>

#include <string>

#include "support/pki_factory.h"

namespace {

using quillon::pki::CryptoDevice;
using quillon::testing::Der;
using quillon::testing::KeyType;
using quillon::testing::ReadFile;
using quillon::testing::TestDataPath;

class Verify : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(device_.open(nullptr, nullptr, 0)); }

  static Certificate Pkits(const std::string& name) {
    const auto der = ReadFile(TestDataPath("nist-pkits/certs/" + name + ".crt"));
    Certificate c;
    EXPECT_TRUE(c.decode(der.data(), der.size())) << name;
    return c;
  }
  static CertificateList PkitsCrl(const std::string& name) {
    const auto der = ReadFile(TestDataPath("nist-pkits/crls/" + name + ".crl"));
    CertificateList c;
    EXPECT_TRUE(c.decode(der.data(), der.size())) << name;
    return c;
  }
  static Certificate FromPem(const std::string& path) {
    const auto pem = ReadFile(TestDataPath(path));
    Certificate c;
    EXPECT_TRUE(c.decodePEM(reinterpret_cast<const char*>(pem.data()), pem.size())) << path;
    return c;
  }

  CryptoDevice device_;
};

// PKITS 4.1.1 (valid signatures) and 4.1.2 (a CA certificate whose signature
// does not verify).
TEST_F(Verify, PkitsCertificateSignatures) {
  const Certificate anchor = Pkits("TrustAnchorRootCertificate");
  const Certificate good_ca = Pkits("GoodCACert");
  const Certificate ee = Pkits("ValidCertificatePathTest1EE");
  EXPECT_TRUE(VerifyCertificate(device_, anchor, anchor));
  EXPECT_TRUE(VerifyCertificate(device_, good_ca, anchor));
  EXPECT_TRUE(VerifyCertificate(device_, ee, good_ca));
  EXPECT_FALSE(VerifyCertificate(device_, ee, anchor));  // wrong issuer key
  EXPECT_FALSE(VerifyCertificate(device_, Pkits("BadSignedCACert"), anchor));
  EXPECT_FALSE(VerifyCertificate(device_, Certificate(), anchor));
  EXPECT_FALSE(VerifyCertificate(device_, good_ca, Certificate()));
}

TEST_F(Verify, CrlSignaturesRealAndPkits) {
  const Certificate anchor = Pkits("TrustAnchorRootCertificate");
  const Certificate good_ca = Pkits("GoodCACert");
  EXPECT_TRUE(VerifyCrl(device_, PkitsCrl("GoodCACRL"), good_ca));
  EXPECT_FALSE(VerifyCrl(device_, PkitsCrl("GoodCACRL"), anchor));
  EXPECT_FALSE(VerifyCrl(device_, PkitsCrl("BadCRLSignatureCACRL"), Pkits("BadCRLSignatureCACert")));

  const Certificate dss_ca = FromPem("real-crls/dss-eu-ca-crls/DSS-2039/ca.pem");
  const auto crl_der = ReadFile(TestDataPath("real-crls/dss-eu-ca-crls/DSS-2039/crl.der"));
  CertificateList crl;
  ASSERT_TRUE(crl.decode(crl_der.data(), crl_der.size()));
  EXPECT_TRUE(VerifyCrl(device_, crl, dss_ca));
  // One flipped bit in the signed part.
  auto tampered = crl_der;
  tampered[tampered.size() / 3] ^= 0x01;
  CertificateList bad;
  if (bad.decode(tampered.data(), tampered.size())) {
    EXPECT_FALSE(VerifyCrl(device_, bad, dss_ca));
  }
}

TEST_F(Verify, OcspResponsesByCaDelegateAndStranger) {
  const auto pki = quillon::testing::MakePki(KeyType::kEcP256);
  const auto& responder_key = quillon::testing::PooledKey(KeyType::kEcP256, 3);
  auto responder = quillon::testing::MakeOcspResponderCert(pki.intermediate.get(),
                                                           pki.intermediateKey, responder_key);
  const auto& stranger = quillon::testing::PooledKey(KeyType::kEcP256, 4);

  struct Case {
    const char* name;
    const X509* signer_cert;
    quillon::testing::Key signer_key, sign_with;
    const X509* verify_with;
    bool ok;
  };
  const Case cases[] = {
      {"signed by the CA", pki.intermediate.get(), pki.intermediateKey, {}, pki.intermediate.get(), true},
      {"delegated responder", responder.get(), responder_key, {}, responder.get(), true},
      {"delegated, checked with the CA key", responder.get(), responder_key, {}, pki.intermediate.get(), false},
      {"unrelated key", pki.intermediate.get(), pki.intermediateKey, stranger, pki.intermediate.get(), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    quillon::testing::OcspSpec spec;
    spec.responses.push_back({.issuerCert = pki.intermediate.get(), .serial = 7});
    spec.signerCert = c.signer_cert;
    spec.signerKey = c.signer_key;
    spec.signWithKey = c.sign_with;
    const auto der = quillon::testing::MakeOcspDer(spec);
    OCSPResponse response;
    ASSERT_TRUE(response.decode(der.data(), der.size()));
    BasicOCSPResponse basic;
    ASSERT_TRUE(response.basicResponse(&basic));
    Certificate signer;
    const auto signer_der = Der(c.verify_with);
    ASSERT_TRUE(signer.decode(signer_der.data(), signer_der.size()));
    EXPECT_EQ(VerifyBasicOcspResponse(device_, basic, signer), c.ok);
  }
}

// The CertID hashes agree with OpenSSL's own CertID for SHA-1 and SHA-256.
TEST_F(Verify, CertIdHashesMatchOpenSsl) {
  for (KeyType type : {KeyType::kRsa2048, KeyType::kEcP384}) {
    const auto pki = quillon::testing::MakePki(type);
    Certificate issuer;
    const auto der = Der(pki.intermediate.get());
    ASSERT_TRUE(issuer.decode(der.data(), der.size()));
    for (const auto& [oid, md] : {std::pair{"1.3.14.3.2.26", EVP_sha1()},
                                  std::pair{"2.16.840.1.101.3.4.2.1", EVP_sha256()}}) {
      std::vector<uint8_t> name_hash, key_hash;
      ASSERT_TRUE(quillon::pki::CertIdHashes(device_, issuer, oid, &name_hash, &key_hash));
      OCSP_CERTID* id = OCSP_cert_to_id(md, pki.leaf.get(), pki.intermediate.get());
      ASSERT_NE(id, nullptr);
      ASN1_OCTET_STRING *name = nullptr, *key = nullptr;
      OCSP_id_get0_info(&name, nullptr, &key, nullptr, id);
      EXPECT_EQ(name_hash, std::vector<uint8_t>(name->data, name->data + name->length)) << oid;
      EXPECT_EQ(key_hash, std::vector<uint8_t>(key->data, key->data + key->length)) << oid;
      OCSP_CERTID_free(id);
    }
  }
}

}  // namespace
