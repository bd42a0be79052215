// Certificates: every PKITS certificate decodes to what its facts say and
// every real CA certificate decodes; certificates made here cover BER input,
// the extensions real data lacks and malformed input.
#include "quillon32/certificate.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/facts_csv.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using Bytes = std::vector<uint8_t>;

Certificate Decode(const Bytes& der) {
  Certificate c;
  EXPECT_TRUE(c.decode(der.data(), der.size()));
  return c;
}

Bytes ToBytes(ByteView v) { return Bytes(v.data, v.data + v.size); }

bool Contains(const Bytes& haystack, const Bytes& needle) {
  return std::search(haystack.begin(), haystack.end(), needle.begin(), needle.end()) !=
         haystack.end();
}

// Every PKITS certificate decodes, re-encodes byte for byte and carries the
// names, serial, validity, CA flag, key usage and distribution points its
// facts give; its times re-encode to the elements received.
TEST(Certificate, PkitsCertificatesMatchTheirFacts) {
  const auto rows = qt::ReadFactsCsv("nist-pkits/cert-facts.csv");
  ASSERT_GT(rows.size(), 400u);
  for (const qt::FactsRow& row : rows) {
    const std::string file = row.at("cert");
    SCOPED_TRACE(file);
    const Bytes der = qt::ReadFile(qt::TestDataPath("nist-pkits/certs/" + file));
    Certificate c;
    ASSERT_TRUE(c.decode(der.data(), der.size()));
    EXPECT_TRUE(c.isStrictDER());
    EXPECT_EQ(c.encode(), der);
    EXPECT_EQ(qt::NameAttributes(c.subject()), qt::FactsName(row.at("subject")));
    EXPECT_EQ(qt::NameAttributes(c.issuer()), qt::FactsName(row.at("issuer")));
    Name issuer;
    EXPECT_TRUE(issuer.decode(c.issuerBytes().data, c.issuerBytes().size) && issuer == c.issuer());
    EXPECT_EQ(c.serialNumber().toHex(), qt::FactsSerial(row.at("serial_hex")));
    EXPECT_EQ(c.notBefore().seconds(), qt::FactsTime(row.at("not_before")));
    EXPECT_EQ(c.notAfter().seconds(), qt::FactsTime(row.at("not_after")));
    EXPECT_TRUE(Contains(der, c.notBefore().encode()) && Contains(der, c.notAfter().encode()));

    bool ca = false;
    int path_length = -1;
    EXPECT_EQ(c.basicConstraints(&ca, &path_length), row.at("ca") != "absent");
    EXPECT_EQ(ca, row.at("ca") == "yes");
    unsigned ku = 0;
    const std::string& ku_fact = row.at("key_usage");
    ASSERT_EQ(c.keyUsage(&ku), !ku_fact.empty() && ku_fact != "absent");
    EXPECT_EQ((ku & kCRLSign) != 0, ku_fact.find("crl_sign") != std::string::npos);
    EXPECT_EQ((ku & kKeyCertSign) != 0, ku_fact.find("key_cert_sign") != std::string::npos);
    std::vector<DistributionPoint> dps;
    EXPECT_EQ(c.crlDistributionPoints(&dps), !row.at("crl_distribution_points").empty());
  }
}

// PEM: the first CERTIFICATE block, whatever text precedes it; other blocks
// are not certificates.
TEST(Certificate, DecodesPem) {
  const Bytes pem = qt::ReadFile(qt::TestDataPath("real-crls/dss-eu-ca-crls/EE-GovCA2018.pem.crt"));
  std::string text = "Subject: text before the block\n";
  text.append(pem.begin(), pem.end());
  Certificate c;
  ASSERT_TRUE(c.decodePEM(text.data(), text.size()));
  EXPECT_EQ(c.subject().attributeText("CN"), "EE-GovCA2018");
  const Bytes crl = qt::ReadFile(qt::TestDataPath("real-crls/dss-eu-ca-crls/belgium2.pem.crl"));
  EXPECT_FALSE(c.decodePEM(reinterpret_cast<const char*>(crl.data()), crl.size()));
  EXPECT_FALSE(c.isDecoded());
}

// Outer and TBS lengths in long form: not DER, encodes to DER, and keeps the
// signed bytes as they came.
TEST(Certificate, BerInputKeepsReceivedSignedBytes) {
  const auto pki = qt::MakePki(qt::KeyType::kEcP256);
  const Bytes tbs = ToBytes(Decode(qt::Der(pki.leaf.get())).tbsCertificate());
  const Bytes ber_tbs = qt::LongFormLength(tbs);
  const Bytes ber = qt::LongFormLength(qt::SignTbs(ber_tbs, pki.intermediateKey));
  Certificate c;
  ASSERT_TRUE(c.decode(ber.data(), ber.size()));
  EXPECT_FALSE(c.isStrictDER());
  EXPECT_EQ(ToBytes(c.tbsCertificate()), ber_tbs);
  const Certificate again = Decode(c.encode());
  EXPECT_TRUE(again.isStrictDER());
  EXPECT_EQ(ToBytes(again.tbsCertificate()), tbs);
}

// Extensions PKITS does not carry: distribution points with URIs and a
// directory name, reasons whose unused-bits octet is sound or not, authority
// information access, extended key usage, and the key identifiers linking a
// certificate to its issuer.
TEST(Certificate, ExtensionsReadBackAsMade) {
  const qt::Key& root_key = qt::PooledKey(qt::KeyType::kEcP256, 0);
  const qt::Key& leaf_key = qt::PooledKey(qt::KeyType::kEcP256, 1);
  const auto root = qt::MakeCert(qt::RootCaSpec(qt::Dn({{"CN", "Ext Root"}}), root_key));
  qt::CertSpec made = qt::LeafSpec(qt::Dn({{"CN", "Ext Leaf"}}), leaf_key, root.get(), root_key);
  const std::vector<std::string> uris = {"http://127.0.0.1/a.crl",
                                         "ldap://127.0.0.1/cn=CA?certificateRevocationList"};
  qt::DistPointSpec by_uri, by_name;
  by_uri.uris = uris;
  by_name.directoryNames = {qt::Dn({{"CN", "CRL Dir"}, {"O", "Example"}})};
  made.crlDistributionPoints = {by_uri, by_name};
  made.ocspUris = {"http://127.0.0.1:8080/ocsp"};
  made.extKeyUsage = {qt::kOidOcspSigning};
  made.keyUsage = std::vector<int>{qt::kKuDigitalSignature};
  const Certificate c = Decode(qt::Der(qt::MakeCert(made).get()));

  std::vector<DistributionPoint> dps;
  ASSERT_TRUE(c.crlDistributionPoints(&dps));
  ASSERT_EQ(dps.size(), 2u);
  EXPECT_EQ(dps[0].name.uris(), uris);
  ASSERT_EQ(dps[1].name.fullName().size(), 1u);
  Name dir;
  ASSERT_TRUE(dps[1].name.fullName()[0].directoryName(&dir));
  EXPECT_EQ(dir.attributeText("CN"), "CRL Dir");
  const struct { Bytes reasons; bool reads; } kReasons[] = {
      {{0x05, 0x60}, true},   // keyCompromise, cACompromise
      {{0x08, 0x60}, false},  // eight unused bits
      {{0x01}, false},        // unused bits but no octet of bits
  };
  for (const auto& r : kReasons) {
    Bytes value = {0x81, static_cast<uint8_t>(r.reasons.size())};  // [1] ReasonFlags
    value.insert(value.end(), r.reasons.begin(), r.reasons.end());
    for (int level = 0; level < 2; ++level) {  // DistributionPoint, then the SEQUENCE OF
      value.insert(value.begin(), {0x30, static_cast<uint8_t>(value.size())});
    }
    qt::CertSpec with_reasons = made;
    with_reasons.crlDistributionPoints.clear();
    with_reasons.extraExtensions = {{"2.5.29.31", false, value}};
    std::vector<DistributionPoint> read;
    ASSERT_EQ(Decode(qt::Der(qt::MakeCert(with_reasons).get())).crlDistributionPoints(&read),
              r.reads);
    if (r.reads) {
      EXPECT_EQ(read.at(0).reasons, 0x6u);
    }
  }
  std::vector<std::string> ocsp;
  ASSERT_TRUE(c.authorityInfoAccess("1.3.6.1.5.5.7.48.1", &ocsp));
  EXPECT_EQ(ocsp, std::vector<std::string>{"http://127.0.0.1:8080/ocsp"});
  EXPECT_TRUE(c.hasExtendedKeyUsage("1.3.6.1.5.5.7.3.9"));
  EXPECT_FALSE(c.hasExtendedKeyUsage("1.3.6.1.5.5.7.3.1"));
  unsigned ku = 0;
  ASSERT_TRUE(c.keyUsage(&ku));
  EXPECT_EQ(ku, static_cast<unsigned>(kDigitalSignature));
  std::vector<unsigned char> ski;
  AuthorityKeyIdentifier aki;
  ASSERT_TRUE(Decode(qt::Der(root.get())).subjectKeyIdentifier(&ski));
  ASSERT_TRUE(c.authorityKeyIdentifier(&aki));
  EXPECT_EQ(aki.keyIdentifier(), ski);
  // Null outputs are refused, not written through.
  bool ca = false;
  EXPECT_FALSE(c.authorityKeyIdentifier(nullptr) || c.keyUsage(nullptr) ||
               c.basicConstraints(&ca, nullptr) ||
               Decode(qt::Der(root.get())).subjectKeyIdentifier(nullptr));
}

// Cuts, a byte after the certificate, the wrong outer tag and a repeated
// extension fail and leave the object empty.
TEST(Certificate, MalformedInputFailsAndLeavesTheObjectEmpty) {
  const Bytes der =
      qt::ReadFile(qt::TestDataPath("nist-pkits/certs/TrustAnchorRootCertificate.crt"));
  std::vector<Bytes> bad;
  for (size_t cut : {size_t{0}, size_t{1}, size_t{4}, der.size() / 2, der.size() - 1}) {
    bad.emplace_back(der.begin(), der.begin() + static_cast<ptrdiff_t>(cut));
  }
  bad.push_back(der);
  bad.back().push_back(0);
  bad.push_back(der);
  bad.back()[0] = 0x31;
  qt::CertSpec repeated =
      qt::RootCaSpec(qt::Dn({{"CN", "Dup"}}), qt::PooledKey(qt::KeyType::kEcP256, 0));
  repeated.extraExtensions = {{"2.5.29.14", false, {0x04, 0x01, 0x01}}};
  bad.push_back(qt::Der(qt::MakeCert(repeated).get()));
  for (const Bytes& input : bad) {
    Certificate c = Decode(der);
    EXPECT_FALSE(c.decode(input.data(), input.size())) << input.size();
    EXPECT_FALSE(c.isDecoded());
    EXPECT_TRUE(c.encode().empty());
    EXPECT_EQ(c.tbsCertificate().size, 0u);
  }
}

}  // namespace
