#include "quillon32/certificate.h"

#include <gtest/gtest.h>

#include <dirent.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "pki/der.h"
#include "support/pki_factory.h"

namespace {

using quillon::testing::CertSpec;
using quillon::testing::Der;
using quillon::testing::Dn;
using quillon::testing::DistPointSpec;
using quillon::testing::KeyType;
using quillon::testing::MakeCert;
using quillon::testing::MakePki;
using quillon::testing::PooledKey;
using quillon::testing::ReadFile;
using quillon::testing::TestDataPath;

// Splits one CSV line, honouring double-quoted fields.
std::vector<std::string> SplitCsv(const std::string& line) {
  std::vector<std::string> out;
  std::string field;
  bool quoted = false;
  for (char c : line) {
    if (c == '"') {
      quoted = !quoted;
    } else if (c == ',' && !quoted) {
      out.push_back(field);
      field.clear();
    } else {
      field += c;
    }
  }
  out.push_back(field);
  return out;
}

std::vector<std::map<std::string, std::string>> ReadCsv(const std::string& path) {
  std::ifstream in(path);
  std::string line;
  std::getline(in, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  const auto header = SplitCsv(line);
  std::vector<std::map<std::string, std::string>> rows;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty()) continue;
    const auto fields = SplitCsv(line);
    std::map<std::string, std::string> row;
    for (size_t i = 0; i < header.size() && i < fields.size(); ++i) row[header[i]] = fields[i];
    rows.push_back(std::move(row));
  }
  return rows;
}

Certificate Decode(const std::vector<uint8_t>& der) {
  Certificate c;
  EXPECT_TRUE(c.decode(der.data(), der.size()));
  return c;
}

// Every PKITS certificate decodes, re-encodes byte for byte and carries the
// serial, CA flag and key usage its facts file gives.
TEST(Certificate, PkitsCertificatesMatchTheirFacts) {
  const auto rows = ReadCsv(TestDataPath("nist-pkits/cert-facts.csv"));
  ASSERT_GT(rows.size(), 400u);
  for (const auto& row : rows) {
    const std::string file = row.at("cert");
    SCOPED_TRACE(file);
    const auto der = ReadFile(TestDataPath("nist-pkits/certs/" + file));
    Certificate c;
    ASSERT_TRUE(c.decode(der.data(), der.size()));
    EXPECT_TRUE(c.isStrictDER());
    EXPECT_EQ(c.encode(), der);
    BigInteger expected;
    ASSERT_TRUE(expected.fromHex(row.at("serial_hex").c_str()));
    EXPECT_EQ(c.serialNumber(), expected);
    EXPECT_EQ(c.subject().attributeText("2.5.4.3").empty(),
              row.at("subject").find("CN=") == std::string::npos);

    bool ca = false;
    int path_len = -1;
    const bool has_bc = c.basicConstraints(&ca, &path_len);
    if (row.at("ca") == "absent") {
      EXPECT_FALSE(has_bc);
    } else {
      EXPECT_TRUE(has_bc);
      EXPECT_EQ(ca, row.at("ca") == "yes");
    }
    unsigned ku = 0;
    const std::string& ku_fact = row.at("key_usage");
    if (ku_fact.empty() || ku_fact == "absent") {
      EXPECT_FALSE(c.keyUsage(&ku));
    } else {
      ASSERT_TRUE(c.keyUsage(&ku));
      EXPECT_EQ((ku & kCRLSign) != 0, ku_fact.find("crl_sign") != std::string::npos);
      EXPECT_EQ((ku & kKeyCertSign) != 0, ku_fact.find("key_cert_sign") != std::string::npos);
    }
    std::vector<DistributionPoint> dps;
    EXPECT_EQ(c.crlDistributionPoints(&dps), !row.at("crl_distribution_points").empty());
  }
}

TEST(Certificate, RawElementsAreViewsOfTheReceivedBytes) {
  const auto der = ReadFile(TestDataPath("nist-pkits/certs/TrustAnchorRootCertificate.crt"));
  const Certificate c = Decode(der);
  const ByteView tbs = c.tbsCertificate();
  ASSERT_GT(tbs.size, 0u);
  // The TBS element starts right after the outer SEQUENCE header (4 octets here).
  EXPECT_EQ(std::vector<uint8_t>(tbs.data, tbs.data + tbs.size),
            std::vector<uint8_t>(der.begin() + 4, der.begin() + 4 + tbs.size));
  EXPECT_EQ(c.publicKeyAlgorithm(), "1.2.840.113549.1.1.1");
  EXPECT_EQ(c.version(), 3);
  EXPECT_EQ(c.issuer(), c.subject());
  EXPECT_EQ(c.notBefore().format("%Y-%m-%d"), "2010-01-01");
  EXPECT_EQ(c.notAfter().format("%Y-%m-%d"), "2030-12-31");
  Name issuer;
  ASSERT_TRUE(issuer.decode(c.issuerBytes().data, c.issuerBytes().size));
  EXPECT_EQ(issuer, c.issuer());
}

// A certificate whose outer length is in long form is not DER: it decodes,
// reports so, encodes to DER and keeps the signed bytes as they came.
TEST(Certificate, BerInputKeepsReceivedSignedBytes) {
  const auto pki = MakePki(KeyType::kEcP256);
  const auto der = Der(pki.leaf.get());
  ASSERT_EQ(der[1], 0x82);  // two length octets
  std::vector<uint8_t> ber = {0x30, 0x84, 0x00, 0x00, der[2], der[3]};
  ber.insert(ber.end(), der.begin() + 4, der.end());
  // And the TBS length in non-minimal form too.
  const size_t tbs_at = 6;
  ASSERT_EQ(ber[tbs_at], 0x30);
  ASSERT_EQ(ber[tbs_at + 1], 0x82);
  ber.insert(ber.begin() + tbs_at + 2, 0x00);
  ber[tbs_at + 1] = 0x83;
  const size_t outer = ber.size() - 6;
  ber[4] = static_cast<uint8_t>(outer >> 8);
  ber[5] = static_cast<uint8_t>(outer);

  Certificate c;
  ASSERT_TRUE(c.decode(ber.data(), ber.size()));
  EXPECT_FALSE(c.isStrictDER());
  EXPECT_EQ(c.encode(), der);
  const ByteView tbs = c.tbsCertificate();
  EXPECT_EQ(tbs.size, quillon::testing::TbsDer(pki.leaf.get()).size() + 1);
  EXPECT_EQ(tbs.data[1], 0x83);

  const Certificate copy = c;
  EXPECT_FALSE(copy.isStrictDER());
  EXPECT_EQ(copy.tbsCertificate().size, tbs.size);
  EXPECT_EQ(copy, c);
}

TEST(Certificate, ExtensionsReadBackAsMade) {
  const auto& root_key = PooledKey(KeyType::kEcP256, 0);
  const auto& leaf_key = PooledKey(KeyType::kEcP256, 1);
  auto root = MakeCert(quillon::testing::RootCaSpec(Dn({{"CN", "Ext Root"}, {"C", "IT"}}), root_key));
  CertSpec spec = quillon::testing::LeafSpec(Dn({{"CN", "Ext Leaf"}}), leaf_key, root.get(), root_key);
  DistPointSpec two_uris;
  two_uris.uris = {"http://127.0.0.1/a.crl", "ldap://127.0.0.1/cn=CA?certificateRevocationList"};
  DistPointSpec directory;
  directory.directoryNames = {Dn({{"CN", "CRL Dir"}, {"O", "Example"}})};
  spec.crlDistributionPoints = {two_uris, directory};
  spec.ocspUris = {"http://127.0.0.1:8080/ocsp"};
  spec.caIssuersUris = {"http://127.0.0.1/ca.der"};
  spec.extKeyUsage = {quillon::testing::kOidOcspSigning};
  spec.keyUsage = quillon::testing::KeyUsageSpec{{quillon::testing::kKuDigitalSignature}, true};
  auto leaf = MakeCert(spec);
  const Certificate c = Decode(Der(leaf.get()));

  std::vector<DistributionPoint> dps;
  ASSERT_TRUE(c.crlDistributionPoints(&dps));
  ASSERT_EQ(dps.size(), 2u);
  EXPECT_EQ(dps[0].name.uris(),
            (std::vector<std::string>{"http://127.0.0.1/a.crl",
                                      "ldap://127.0.0.1/cn=CA?certificateRevocationList"}));
  ASSERT_EQ(dps[1].name.fullName().size(), 1u);
  Name dir;
  ASSERT_TRUE(dps[1].name.fullName()[0].directoryName(&dir));
  EXPECT_EQ(dir.attributeText("2.5.4.3"), "CRL Dir");
  EXPECT_TRUE(dps[1].name.uris().empty());

  std::vector<std::string> uris;
  ASSERT_TRUE(c.authorityInfoAccess("1.3.6.1.5.5.7.48.1", &uris));
  EXPECT_EQ(uris, std::vector<std::string>{"http://127.0.0.1:8080/ocsp"});
  EXPECT_TRUE(c.hasExtendedKeyUsage("1.3.6.1.5.5.7.3.9"));
  EXPECT_FALSE(c.hasExtendedKeyUsage("1.3.6.1.5.5.7.3.1"));
  unsigned ku = 0;
  ASSERT_TRUE(c.keyUsage(&ku));
  EXPECT_EQ(ku, static_cast<unsigned>(kDigitalSignature));

  const Certificate ca = Decode(Der(root.get()));
  std::vector<unsigned char> ski;
  ASSERT_TRUE(ca.subjectKeyIdentifier(&ski));
  AuthorityKeyIdentifier aki;
  ASSERT_TRUE(c.authorityKeyIdentifier(&aki));
  EXPECT_EQ(aki.keyIdentifier(), ski);
  ASSERT_TRUE(ca.keyUsage(&ku));
  EXPECT_TRUE(ku & kCRLSign);
}

TEST(Certificate, MalformedInputFailsAndLeavesTheObjectEmpty) {
  const auto der = ReadFile(TestDataPath("nist-pkits/certs/TrustAnchorRootCertificate.crt"));
  Certificate c = Decode(der);
  ASSERT_TRUE(c.isDecoded());

  std::vector<std::vector<uint8_t>> bad;
  for (size_t cut : {size_t{0}, size_t{1}, size_t{4}, der.size() / 2, der.size() - 1}) {
    bad.emplace_back(der.begin(), der.begin() + static_cast<ptrdiff_t>(cut));
  }
  auto trailing = der;
  trailing.push_back(0);
  bad.push_back(trailing);
  auto wrong_outer_tag = der;
  wrong_outer_tag[0] = 0x31;
  bad.push_back(wrong_outer_tag);
  auto duplicate_extension = Der(MakeCert([] {
    CertSpec s = quillon::testing::RootCaSpec(Dn({{"CN", "Dup"}}), PooledKey(KeyType::kEcP256, 0));
    s.extraExtensions = {{"2.5.29.14", false, {0x04, 0x01, 0x01}}};
    return s;
  }()).get());
  bad.push_back(duplicate_extension);

  for (const auto& input : bad) {
    EXPECT_FALSE(c.decode(input.data(), input.size())) << input.size();
    EXPECT_FALSE(c.isDecoded());
    EXPECT_TRUE(c.encode().empty());
    EXPECT_EQ(c.tbsCertificate().size, 0u);
  }
}

TEST(Certificate, DecodesPemAndEveryRealIssuerCertificate) {
  const auto pki = MakePki(KeyType::kEcP384);
  const std::string pem = quillon::testing::Pem(pki.root.get());
  Certificate c;
  ASSERT_TRUE(c.decodePEM(pem.data(), pem.size()));
  EXPECT_EQ(c.encode(), Der(pki.root.get()));

  // CRL issuer certificates gathered from real CAs.
  int decoded = 0;
  const std::string dir = TestDataPath("real-crls/dss-eu-ca-crls");
  if (DIR* d = opendir(dir.c_str())) {
    while (dirent* e = readdir(d)) {
      const std::string name = e->d_name;
      if (name.size() < 4 || (name.substr(name.size() - 4) != ".cer" &&
                              name.substr(name.size() - 4) != ".crt"))
        continue;
      auto bytes = ReadFile(dir + "/" + name);
      Certificate real;
      if (!bytes.empty() && bytes[0] != 0x30) {
        ASSERT_TRUE(real.decodePEM(reinterpret_cast<const char*>(bytes.data()), bytes.size())) << name;
      } else {
        ASSERT_TRUE(real.decode(bytes.data(), bytes.size())) << name;
      }
      EXPECT_FALSE(real.subject().toString().empty()) << name;
      ++decoded;
    }
    closedir(d);
  }
  EXPECT_GT(decoded, 0);
}

}  // namespace
