// CRLs: the PKITS and real CA lists decode to what their facts say and find
// every serial they list; the conformance cases decode as their structure
// allows; CRLs made here cover the rest, a large one included.
#include "quillon32/certificate_list.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "quillon32/buffer.h"
#include "support/facts_csv.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using Bytes = std::vector<uint8_t>;

const std::map<std::string, int> kReasons = {
    {"unspecified", 0}, {"keyCompromise", 1}, {"cACompromise", 2}, {"affiliationChanged", 3},
    {"superseded", 4}, {"cessationOfOperation", 5}, {"certificateHold", 6}, {"removeFromCRL", 8},
    {"privilegeWithdrawn", 9}, {"aACompromise", 10}};

Bytes Slice(ByteView v) { return Bytes(v.data, v.data + v.size); }

// A file as the caller hands it over: PEM is brought to DER first.
Bytes LoadCrl(const std::string& relative) {
  Buffer b(qt::ReadFile(qt::TestDataPath(relative)));
  EXPECT_TRUE(b.normaliseToDER());
  return b.bytes();
}

// The extension a fact names ("cRLNumber=1", "issuingDistributionPoint(critical)[...]"),
// present and as critical as the fact says.
void ExpectNamedExtension(const CertificateList& crl, const std::string& fact) {
  static const std::map<std::string, std::string> kOids = {
      {"authorityKeyIdentifier", "2.5.29.35"}, {"cRLNumber", "2.5.29.20"},
      {"issuingDistributionPoint", "2.5.29.28"}, {"freshestCRL", "2.5.29.46"},
      {"deltaCRLIndicator", "2.5.29.27"}};
  const std::string name = fact.substr(0, fact.find_first_of("(=["));
  const Extension* e = crl.extension(kOids.count(name) ? kOids.at(name).c_str() : name.c_str());
  ASSERT_NE(e, nullptr) << fact;
  EXPECT_EQ(e->critical, fact.find("(critical)") != std::string::npos) << fact;
}

// Every entry decodes and prints, and findSerial() answers the first entry
// printing the same text. Gives the number of serials listed more than once.
size_t ExpectEveryEntryFound(const CertificateList& crl) {
  std::map<std::string, size_t> first;
  std::set<std::string> repeated;
  for (size_t i = 0; i < crl.entryCount(); ++i) {
    CRLEntry e;
    EXPECT_TRUE(crl.entry(i, &e)) << i;
    const std::string text = crl.entrySerialText(i);
    EXPECT_EQ(text, e.serialNumber.toHex());
    if (!first.emplace(text, i).second) repeated.insert(text);
  }
  for (const auto& [text, i] : first) {
    EXPECT_EQ(crl.findSerial(text.c_str()), static_cast<long>(i)) << text;
  }
  if (crl.entryCount() == 0) {
    EXPECT_EQ(crl.findSerial("01"), -1);
  }
  return repeated.size();
}

// Each PKITS CRL decodes, re-encodes byte for byte and carries the issuer,
// dates, entries, CRL number and issuing distribution point of its facts.
TEST(CertificateList, PkitsCrlsMatchTheirFacts) {
  const auto rows = qt::ReadFactsCsv("nist-pkits/crl-facts.csv");
  ASSERT_EQ(rows.size(), 173u);
  for (const qt::FactsRow& row : rows) {
    SCOPED_TRACE(row.at("crl"));
    const Bytes der = LoadCrl("nist-pkits/crls/" + row.at("crl"));
    CertificateList crl;
    ASSERT_TRUE(crl.decode(der.data(), der.size()));
    EXPECT_EQ(crl.encode(), der);
    EXPECT_EQ(qt::NameAttributes(crl.issuer()), qt::FactsName(row.at("issuer")));
    EXPECT_EQ(crl.thisUpdate().seconds(), qt::FactsTime(row.at("this_update")));
    EXPECT_EQ(crl.nextUpdate().seconds(), qt::FactsTime(row.at("next_update")));
    const auto entries = qt::SplitFacts(row.at("entries"), " ; ");
    ASSERT_EQ(crl.entryCount(), entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
      const auto f = qt::SplitFacts(entries[i], " ");  // serial, date, reason=..., more
      CRLEntry e;
      BigInteger serial;
      ASSERT_TRUE(crl.entry(i, &e) && serial.fromHex(f[0].c_str()));
      EXPECT_EQ(e.serialNumber, serial);
      EXPECT_EQ(e.revocationDate.seconds(), qt::FactsTime(f[1]));
      EXPECT_EQ(e.reasonCode, kReasons.at(f[2].substr(7)));
      EXPECT_EQ(crl.findSerial(serial.toHex().c_str()), static_cast<long>(i));
    }
    const auto exts = qt::SplitFacts(row.at("extensions"), "; ");
    EXPECT_EQ(crl.extensions().size(), exts.size());
    for (const std::string& x : exts) {
      ExpectNamedExtension(crl, x);
      BigInteger number;
      if (x.starts_with("cRLNumber=")) {
        EXPECT_TRUE(crl.crlNumber(&number) && number == BigInteger(std::stol(x.substr(10))));
      }
      IssuingDistributionPoint idp;
      if (!x.starts_with("issuingDistributionPoint")) continue;
      ASSERT_TRUE(crl.issuingDistributionPoint(&idp));
      const auto has = [&x](const char* what) { return x.find(what) != std::string::npos; };
      EXPECT_EQ(idp.onlyContainsUserCerts, has("only_contains_user_certs"));
      EXPECT_EQ(idp.onlyContainsCACerts, has("only_contains_ca_certs"));
      EXPECT_EQ(idp.onlyContainsAttributeCerts, has("only_contains_attribute_certs"));
      EXPECT_EQ(idp.indirectCRL, has("indirect_crl"));
      EXPECT_EQ(idp.hasDistributionPoint, has("fullName=") || has("relName="));
      EXPECT_EQ(idp.distributionPoint.isFullName(), !has("relName="));
      // ReasonFlags bits follow CRLReason up to 6, then privilegeWithdrawn (7)
      // and aACompromise (8). The facts leave out unused(0), which some set.
      unsigned reasons = 0;
      if (has("onlySomeReasons=")) {
        const size_t at = x.find("onlySomeReasons=") + 16;
        for (const auto& r : qt::SplitFacts(x.substr(at, x.find_first_of(",]", at) - at), "|")) {
          reasons |= 1u << (kReasons.at(r) > 8 ? kReasons.at(r) - 2 : kReasons.at(r));
        }
      }
      EXPECT_EQ(idp.hasOnlySomeReasons, reasons != 0);
      EXPECT_EQ(idp.onlySomeReasons & ~1u, reasons);
    }
  }
}

// Real CRLs from CAs, PEM files named .crl among them: facts checked entry
// by entry, repeated serials included.
TEST(CertificateList, RealCrlsMatchTheirFacts) {
  const std::map<std::string, size_t> kRepeatedSerials = {
      {"dss-eu-ca-crls/http___crl.globalsign.com_gs_gspersonalsign2sha2g2.crl", 2},
      {"dss-eu-ca-crls/CA-5358AA45-Full.crl", 44}};
  int checked = 0;
  for (const qt::FactsRow& row : qt::ReadFactsCsv("real-crls/crl-facts.csv")) {
    if (row.at("parse") != "ok") continue;
    SCOPED_TRACE(row.at("file"));
    const Bytes der = LoadCrl("real-crls/" + row.at("file"));
    CertificateList crl;
    ASSERT_TRUE(crl.decode(der.data(), der.size()));
    EXPECT_EQ(crl.encode(), der);
    EXPECT_EQ(crl.version(), row.at("version")[0] - '0');
    EXPECT_EQ(qt::NameAttributes(crl.issuer()), qt::FactsName(row.at("issuer")));
    EXPECT_EQ(crl.thisUpdate().seconds(), qt::FactsTime(row.at("this_update")));
    EXPECT_EQ(crl.nextUpdate().seconds(), qt::FactsTime(row.at("next_update")));
    ASSERT_EQ(crl.entryCount(), std::stoul(row.at("entries")));
    const auto exts = qt::SplitFacts(row.at("crl_extensions"), "; ");
    EXPECT_EQ(crl.extensions().size(), exts.size());
    for (const std::string& x : exts) ExpectNamedExtension(crl, x);
    X500Time expired;  // the fact: "<text> (<type>)"
    const std::string& expired_fact = row.at("expired_certs_on_crl");
    ASSERT_EQ(crl.expiredCertsOnCRL(&expired), !expired_fact.empty());
    if (!expired_fact.empty()) {
      const char* type = expired.tag() == X500Time::kUTCTime ? " (UTCTime)" : " (GeneralizedTime)";
      EXPECT_EQ(expired_fact, expired.text() + std::string(type));
    }
    std::map<std::string, size_t> counted;
    for (size_t i = 0; i < crl.entryCount(); ++i) {
      CRLEntry e;
      ASSERT_TRUE(crl.entry(i, &e));
      counted["cRLReason"] += e.reasonCode >= 0;
      counted["invalidityDate"] += e.hasInvalidityDate;
      for (const auto& [name, code] : kReasons) counted[name] += e.reasonCode == code;
    }
    for (const char* column : {"entry_extensions", "reasons"}) {  // "name:count ..."
      for (const auto& fact : qt::SplitFacts(row.at(column), " ")) {
        const size_t colon = fact.find(':');
        EXPECT_EQ(counted[fact.substr(0, colon)], std::stoul(fact.substr(colon + 1))) << fact;
      }
    }
    const auto repeated = kRepeatedSerials.find(row.at("file"));
    EXPECT_EQ(ExpectEveryEntryFound(crl),
              repeated == kRepeatedSerials.end() ? 0 : repeated->second);
    ++checked;
  }
  EXPECT_EQ(checked, 22);
}

// The text must be exactly what the printer writes: upper case, two digits
// per octet of the minimal magnitude, "-" before negative values.
TEST(CertificateList, SerialLookupIsExactText) {
  // PKITS lists serial -1 (one octet FF); 255 (00 FF) prints "FF".
  const Bytes pkits = LoadCrl("nist-pkits/crls/NegativeSerialNumberCACRL.crl");
  CertificateList negative;
  ASSERT_TRUE(negative.decode(pkits.data(), pkits.size()));
  EXPECT_EQ(negative.findSerial("-01"), 0);
  EXPECT_EQ(negative.findSerial("FF"), -1);

  // Serials as CAs write them: non-minimal forms, zero, sign octets, repeats.
  qt::CrlSpec wanted{.signingKey = qt::PooledKey(qt::KeyType::kEcP256, 0)};
  for (const Bytes& raw : std::vector<Bytes>{{0x0A}, {0x00, 0x00, 0x0B}, {0x00}, {0x00, 0x80},
                                             {0xFF, 0x80}, {0xFF, 0xFF, 0x7F}, {0x00, 0x0A}}) {
    wanted.revoked.push_back({.serial = qt::Serial::FromBytes(raw)});
  }
  const Bytes der = qt::MakeCrlDer(wanted);
  CertificateList crl;
  ASSERT_TRUE(crl.decode(der.data(), der.size()));
  const std::vector<std::string> printed = {"0A", "0B", "00", "80", "-80", "-81", "0A"};
  for (size_t i = 0; i < printed.size(); ++i) EXPECT_EQ(crl.entrySerialText(i), printed[i]);
  EXPECT_EQ(ExpectEveryEntryFound(crl), 1u);
  for (const char* absent :
       {"B", "000B", "0b", "0x0B", "", "-", "-00", "0080", "81", "-7F", "-0081"}) {
    EXPECT_EQ(crl.findSerial(absent), -1) << absent;
  }
}

// Long serial texts are read many digits at a time: serials of every length
// are found, and a wrong character anywhere in a 40-digit text is caught.
TEST(CertificateList, LongSerialTextsAreCheckedEverywhere) {
  qt::CrlSpec spec{.signingKey = qt::PooledKey(qt::KeyType::kEcP256, 0)};
  for (const size_t octets : {7, 8, 12, 16, 17, 20, 24, 33}) {
    Bytes raw(octets);
    for (size_t k = 0; k < octets; ++k) raw[k] = static_cast<uint8_t>(0x3D + 37 * k);
    raw[0] = octets == 17 ? 0x80 : 0x5A;  // one negative: its text starts with "-"
    spec.revoked.push_back({.serial = qt::Serial::FromBytes(raw)});
  }
  const Bytes der = qt::MakeCrlDer(spec);
  CertificateList crl;
  ASSERT_TRUE(crl.decode(der.data(), der.size()));
  EXPECT_EQ(ExpectEveryEntryFound(crl), 0u);
  EXPECT_EQ(crl.entrySerialText(4)[0], '-');
  const std::string text = crl.entrySerialText(5);
  ASSERT_EQ(text.size(), 40u);
  for (size_t i = 0; i < text.size(); ++i) {
    for (const char c : {'/', ':', '@', 'G', '`', 'a', 'f', ' ', '\x80', '\xC1'}) {
      std::string wrong = text;
      wrong[i] = c;
      EXPECT_EQ(crl.findSerial(wrong.c_str()), -1) << wrong;
    }
  }
}

// The Chromium CRL cases. The structural faults fail to decode: every
// "invalid_garbage_*", an explicit v1 or a v3 version, extensions on a v1 CRL
// or on its entries, and a signature algorithm other than the signed one. A
// malformed issuing distribution point fails when read, not at decode. The
// rest are about issuers, signatures, freshness and scope: they decode, and
// their leaf is listed exactly in the "revoked_" cases.
TEST(CertificateList, ConformanceCasesDecodeAsDecided) {
  const std::string dir = "real-crls/boringssl-crl-unittest/";
  int rejected = 0;
  for (const qt::FactsRow& row : qt::ReadFactsCsv(dir + "expected-outcomes.csv")) {
    const std::string file = row.at("file");
    SCOPED_TRACE(file);
    const auto text = qt::ReadFile(qt::TestDataPath(dir + file));
    const std::string pem(text.begin(), text.end());
    Buffer crl_der, leaf_der;
    std::string label;
    for (size_t at = 0; at < pem.size();) {
      Buffer b;
      if (!b.readPEMBlock(pem, &at, &label)) continue;
      if (label == "CRL") crl_der = b;
      if (label == "CERTIFICATE") leaf_der = b;
    }
    const bool structural = file.starts_with("invalid_garbage_") || file.starts_with("invalid_v") ||
                            file == "invalid_mismatched_signature_algorithm.pem";
    CertificateList crl;
    ASSERT_EQ(crl.decode(crl_der.data(), crl_der.size()), !structural);
    if (structural) {
      EXPECT_FALSE(crl.isDecoded());
      ++rejected;
      continue;
    }
    IssuingDistributionPoint idp;
    const bool malformed_idp = file.starts_with("invalid_idp_") && !file.ends_with("_v1_leaf.pem");
    EXPECT_EQ(crl.issuingDistributionPoint(&idp),
              file.find("_idp_") != std::string::npos && !malformed_idp);
    const qt::X509Ptr leaf = qt::ParseCert(leaf_der.bytes());
    ASSERT_TRUE(leaf);
    BIGNUM* bn = ASN1_INTEGER_to_BN(X509_get0_serialNumber(leaf.get()), nullptr);
    char* hex = BN_bn2hex(bn);
    if (file.starts_with("revoked_")) {
      EXPECT_GE(crl.findSerial(hex), 0) << hex;
    } else if (file.starts_with("good_")) {
      EXPECT_EQ(crl.findSerial(hex), -1) << hex;
    }
    OPENSSL_free(hex);
    BN_free(bn);
  }
  EXPECT_EQ(rejected, 22);
}

// The PostSignum CRL arrives as Base64 of the CRL and a CR LF. decode() takes
// one element and nothing after it; the caller cuts the body to the element.
TEST(CertificateList, TrailingBytesAreCutByTheCaller) {
  const Bytes body = LoadCrl("real-crls/dss-eu-ca-crls/infinite-loop.crl");
  CertificateList crl;
  EXPECT_FALSE(crl.decode(body.data(), body.size()));
  ASSERT_EQ(body[1], 0x83);  // three length octets
  const size_t first = 5 + (size_t{body[2]} << 16 | size_t{body[3]} << 8 | body[4]);
  ASSERT_EQ(body.size(), first + 2);
  ASSERT_TRUE(crl.decode(body.data(), first));
  EXPECT_EQ(crl.thisUpdate().seconds(), qt::FactsTime("2016-04-25T12:39:22Z"));
  EXPECT_GE(crl.findSerial("1D9378"), 0);
}

// What the real lists lack: IDP URIs, no nextUpdate, a CRL number beyond
// 64 bits, reasons CRLReason does not have (read as none), and a v1 CRL with
// entries.
TEST(CertificateList, MadeCrlsReadBackAsMade) {
  const time_t t0 = qt::UtcTime(2024, 3, 1, 12);
  const std::vector<std::string> uris = {"http://127.0.0.1/a.crl", "ldap://h/cn=x"};
  qt::CrlSpec made{.signingKey = qt::PooledKey(qt::KeyType::kEcP256, 0), .thisUpdate = t0,
                   .nextUpdate = std::nullopt,
                   .revoked = {{.serial = 1, .revocationDate = t0, .reason = 7},
                               {.serial = 2, .revocationDate = t0, .reason = 11}},
                   .crlNumber = qt::Serial::FromHex("00AB0000000000000000000001"),
                   .issuingDistributionPoint = qt::IdpSpec{.uris = uris}};
  const Bytes der = qt::MakeCrlDer(made);
  CertificateList crl;
  ASSERT_TRUE(crl.decode(der.data(), der.size()));
  EXPECT_FALSE(crl.hasNextUpdate());
  EXPECT_TRUE(crl.nextUpdate().isNoTime());
  for (size_t i : {0, 1}) {
    CRLEntry unknown_reason;
    ASSERT_TRUE(crl.entry(i, &unknown_reason)) << i;
    EXPECT_EQ(unknown_reason.reasonCode, -1) << i;
  }
  IssuingDistributionPoint idp;
  ASSERT_TRUE(crl.issuingDistributionPoint(&idp));
  EXPECT_EQ(idp.distributionPoint.uris(), uris);
  BigInteger number;
  ASSERT_TRUE(crl.crlNumber(&number));
  EXPECT_EQ(number.toHex(), "AB0000000000000000000001");

  made.version = 1;
  const Bytes v1_der = qt::MakeCrlDer(made);
  CertificateList v1;
  CRLEntry plain;
  ASSERT_TRUE(v1.decode(v1_der.data(), v1_der.size()) && v1.entry(1, &plain));
  EXPECT_EQ(v1.version(), 1);
  EXPECT_TRUE(v1.extensions().empty() && plain.extensions.empty());
  EXPECT_EQ(v1.findSerial("02"), 1);
}

// A large list: every serial found at its entry, unlisted ones not, and the
// whole object within one and a half times its DER, whether it copied the
// DER or took it over. A copy of the latter outlives it; a failed take
// leaves the caller's bytes alone.
TEST(CertificateList, LargeCrlEntriesLookupsAndMemory) {
  const size_t n = 50000;
  const uint64_t seed = 7;
  const Bytes der =
      qt::MakeLargeCrl(qt::PooledKey(qt::KeyType::kEcP256, 0), qt::TestName("Large CA"), n, seed);
  Bytes cut(der.begin(), der.end() - 1);
  EXPECT_FALSE(CertificateList().decode(std::move(cut)));
  EXPECT_EQ(cut.size(), der.size() - 1);
  Bytes given = der;
  auto taken = std::make_unique<CertificateList>();
  ASSERT_TRUE(taken->decode(std::move(given)));
  EXPECT_TRUE(given.empty());
  EXPECT_LE(taken->memoryUsage(), der.size() * 3 / 2);
  const CertificateList crl(*taken);
  taken.reset();
  ASSERT_EQ(crl.entryCount(), n);
  EXPECT_EQ(crl.encode(), der);
  EXPECT_LE(crl.memoryUsage(), der.size() * 3 / 2);
  for (size_t i = 0; i < n; ++i) {
    BigInteger serial;
    const qt::Serial listed = qt::LargeCrlSerial(i, seed);
    ASSERT_TRUE(serial.fromDerContent(listed.bytes.data(), listed.bytes.size()));
    ASSERT_EQ(crl.findSerial(serial.toHex().c_str()), static_cast<long>(i));
    const qt::Serial absent = qt::LargeCrlAbsentSerial(i, seed);
    ASSERT_TRUE(serial.fromDerContent(absent.bytes.data(), absent.bytes.size()));
    ASSERT_EQ(crl.findSerial(serial.toHex().c_str()), -1);
  }
}

// Entry sizes that change along the list, so that the first entries misjudge
// the count one way or the other: every serial is still found at its first
// entry, repeats included.
TEST(CertificateList, EntrySizesChangingAlongTheList) {
  for (bool large_first : {true, false}) {
    qt::CrlSpec spec{.signingKey = qt::PooledKey(qt::KeyType::kEcP256, 0)};
    for (long long i = 0; i < 600; ++i) {
      qt::RevokedSpec r{.serial = i + 1};
      if ((i < 64) == large_first) {
        Bytes raw(20, 0x5A);
        raw[0] = 0x40;
        raw[18] = static_cast<uint8_t>(i >> 8);
        raw[19] = static_cast<uint8_t>(i);
        r = {.serial = qt::Serial::FromBytes(raw), .reason = 1};
      }
      spec.revoked.push_back(r);
    }
    spec.revoked.push_back(spec.revoked[3]);
    spec.revoked.push_back(spec.revoked[70]);
    const Bytes der = qt::MakeCrlDer(spec);
    CertificateList crl;
    ASSERT_TRUE(crl.decode(der.data(), der.size()));
    EXPECT_EQ(ExpectEveryEntryFound(crl), 2u) << large_first;
  }
}

// BER input (indefinite lengths) encodes as DER and keeps the signed bytes
// exactly as they came, in a copy that outlives the original too.
// Large enough that decoding copies it in several stretches.
TEST(CertificateList, BerInputKeepsTheSignedBytes) {
  const Bytes der =
      qt::MakeLargeCrl(qt::PooledKey(qt::KeyType::kEcP256, 0), qt::TestName("BER CA"), 20000, 3);
  ASSERT_GT(der.size(), 3u * 256 * 1024);
  CertificateList ref;
  ASSERT_TRUE(ref.decode(der.data(), der.size()));
  const Bytes tbs = Slice(ref.tbsCertList()), alg = Slice(ref.signatureAlgorithm());
  Bytes ber_tbs = {0x30, 0x80};
  ber_tbs.insert(ber_tbs.end(), tbs.begin() + (tbs[1] & 0x80 ? 2 + (tbs[1] & 0x7F) : 2), tbs.end());
  ber_tbs.insert(ber_tbs.end(), {0x00, 0x00});
  Bytes ber = {0x30, 0x80};
  ber.insert(ber.end(), ber_tbs.begin(), ber_tbs.end());
  ber.insert(ber.end(), alg.begin(), alg.end());
  // The BIT STRING: short header, unused-bits octet, signature.
  ber.insert(ber.end(), der.end() - static_cast<long>(ref.signatureValue().size) - 3, der.end());
  ber.insert(ber.end(), {0x00, 0x00});

  auto original = std::make_unique<CertificateList>();
  ASSERT_TRUE(original->decode(ber.data(), ber.size()));
  const CertificateList copy(*original);
  original.reset();
  EXPECT_EQ(copy.encode(), der);
  EXPECT_EQ(copy, ref);
  EXPECT_EQ(Slice(copy.tbsCertList()), ber_tbs);
  EXPECT_EQ(copy.findSerial(ref.entrySerialText(19999).c_str()), 19999);

  Bytes given = ber;
  CertificateList taken;
  ASSERT_TRUE(taken.decode(std::move(given)));
  EXPECT_TRUE(given.empty());
  EXPECT_EQ(taken, ref);
  EXPECT_EQ(Slice(taken.tbsCertList()), ber_tbs);
}

}  // namespace
