// The CA table: adding, replacing, looking up, removing and finding the
// record that issued a signed object; then the exported functions over the
// process-wide table. Those change process-wide state, so they run in a child
// process of their own (EXPECT_EXIT) that starts from the untouched state.
#include "castore/ca_store.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/ca_operations.h"
#include "quillon32/quillon32.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using quillon::castore::AddOutcome;
using quillon::castore::CaStore;
using Bytes = std::vector<uint8_t>;

// IN_CHILD runs a lambda in a child process; there CHECK reports a failed
// condition on stderr, which EXPECT_EXIT shows, and makes the child exit 1.
int child_failures = 0;
#define CHECK(c) \
  ((c) ? void() : (void)(++child_failures, std::fprintf(stderr, "line %d: %s\n", __LINE__, #c)))
#define IN_CHILD(...) \
  EXPECT_EXIT(((__VA_ARGS__)(), std::exit(child_failures != 0)), ::testing::ExitedWithCode(0), "")

char* C(const std::string& s) { return const_cast<char*>(s.c_str()); }
template <class T>
T* M(const T& object) { return const_cast<T*>(&object); }

Certificate Decoded(const Bytes& der) {
  Certificate c;
  EXPECT_TRUE(c.decode(der.data(), der.size()));
  return c;
}

Certificate Pkits(const std::string& name) {
  return Decoded(qt::ReadFile(qt::TestDataPath("nist-pkits/certs/" + name + ".crt")));
}

CertificateList PkitsCrl(const std::string& name) {
  const Bytes bytes = qt::ReadFile(qt::TestDataPath("nist-pkits/crls/" + name + ".crl"));
  CertificateList crl;
  EXPECT_TRUE(crl.decode(bytes.data(), bytes.size()));
  return crl;
}

// A self-signed CA "C=IT, O=Quillon32 Test PKI, CN=<cn>"; only names and
// serials matter, so one pooled key serves all.
Certificate MakeCa(const std::string& cn, long long serial) {
  qt::CertSpec spec = qt::RootCaSpec(qt::TestName(cn), qt::PooledKey(qt::KeyType::kEcP256, 0));
  spec.serial = serial;
  return Decoded(qt::Der(qt::MakeCert(spec).get()));
}

// The sources of every entry's records, in order.
std::vector<std::vector<int>> Shape(const CaStore& store) {
  std::vector<std::vector<int>> out(static_cast<size_t>(store.count()));
  for (int e = 0; e < store.count(); ++e) {
    for (int r = 0; r < store.entry(e).size(); ++r) out[e].push_back(store.record(e, r)->source);
  }
  return out;
}

TEST(CaStore, LatestAddWinsAndMovesToTheEndButSource4NeverReplaces) {
  CaStore store;
  const Certificate good = Pkits("GoodCACert");
  const Certificate new_key = Pkits("BasicSelfIssuedNewKeyCACert");
  const Certificate old_with_new = Pkits("BasicSelfIssuedNewKeyOldWithNewCACert");

  bool new_entry = false;
  EXPECT_EQ(store.add(good, 3, nullptr, &new_entry), AddOutcome::kAppended);
  EXPECT_TRUE(new_entry);
  EXPECT_EQ(store.add(new_key, 3, nullptr, &new_entry), AddOutcome::kAppended);
  // Same subject, another issuer and serial: a second record of that entry.
  EXPECT_EQ(store.add(old_with_new, 2, nullptr, &new_entry), AddOutcome::kAppended);
  EXPECT_FALSE(new_entry);
  ASSERT_EQ(store.count(), 2);
  EXPECT_EQ(store.entry(1).key(), "C=US, O=Test Certificates 2011, CN=Basic Self-Issued New Key CA");

  struct Step {
    const char* name;
    const Certificate* cert;
    int source;
    AddOutcome outcome;
    std::vector<int> sources;  // of entry 1 afterwards
    std::string last_serial;
  } steps[] = {
      {"re-add the first record", &new_key, 9, AddOutcome::kReplaced, {2, 9}, "13"},
      {"source 4 keeps the record there", &old_with_new, 4, AddOutcome::kKeptExisting, {2, 9}, "13"},
      {"re-add the other one", &old_with_new, 3, AddOutcome::kReplaced, {9, 3}, "01"},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.name);
    EXPECT_EQ(store.add(*s.cert, s.source, nullptr), s.outcome);
    EXPECT_EQ(Shape(store), (std::vector<std::vector<int>>{{3}, s.sources}));
    EXPECT_EQ(store.record(1, 1)->serial.toHex(), s.last_serial);
    EXPECT_TRUE(store.indexesConsistent());
  }
  // The record holds its own copy.
  ASSERT_NE(store.record(0, 0)->cert(), nullptr);
  EXPECT_NE(store.record(0, 0)->cert(), &good);
  EXPECT_EQ(*store.record(0, 0)->cert(), good);
  EXPECT_EQ(store.findRecord(1, old_with_new.issuer(), old_with_new.serialNumber()), 1);
  EXPECT_EQ(store.findRecord(1, good.issuer(), old_with_new.serialNumber()), -1);
  EXPECT_EQ(store.findRecord(7, good.issuer(), good.serialNumber()), -1);
}

TEST(CaStore, SubjectKeysIgnoreTheCaseOfAsciiLettersOnly) {
  // Against the C runtime's comparison in the "C" locale, every byte pair,
  // inside a whole eight-byte word and in the tail after the last one.
  const quillon::castore::FoldedEqual equal;
  const quillon::castore::FoldedHash hash;
  for (int a = 0; a < 256; ++a) {
    for (int b = 0; b < 256; ++b) {
      for (const size_t at : {3u, 13u}) {
        std::string x(17, 'k'), y(17, 'K');
        x[at] = static_cast<char>(a);
        y[at] = static_cast<char>(b);
        const bool same = strncasecmp(x.data(), y.data(), x.size()) == 0;
        ASSERT_EQ(equal(x, y), same) << a << " " << b << " at " << at;
        if (same) {
          ASSERT_EQ(hash(x), hash(y));
        }
      }
    }
  }
  EXPECT_FALSE(equal("abc", "abcd"));
  EXPECT_NE(hash("abc"), hash(std::string("abc\0", 4)));

  CaStore store;
  store.add(MakeCa("Quillon Case CA", 1), 3, nullptr);
  store.add(MakeCa("QUILLON case ca", 2), 3, nullptr);
  store.add(MakeCa("Quillon Caf\xC3\xA9 CA", 3), 3, nullptr);
  store.add(MakeCa("Quillon Caf\xC3\x89 CA", 4), 3, nullptr);  // É is not folded
  EXPECT_EQ(Shape(store), (std::vector<std::vector<int>>{{3, 3}, {3}, {3}}));
  EXPECT_EQ(store.entry(0).key(), "C=IT, O=Quillon32 Test PKI, CN=Quillon Case CA");
  Name name;
  ASSERT_TRUE(name.parse("CN=QUILLON CASE CA, O=quillon32 test pki, C=it"));
  EXPECT_EQ(store.findEntry(name), 0);
}

TEST(CaStore, FullTableRefusesNewSubjectsButTakesRecordsOfKnownOnes) {
  CaStore store;
  for (int i = 0; i < quillon::castore::kMaxEntries; ++i) {
    ASSERT_EQ(store.add(MakeCa("Quillon Full CA " + std::to_string(i), 1), 3, nullptr),
              AddOutcome::kAppended);
  }
  EXPECT_EQ(store.add(MakeCa("Quillon One Too Many CA", 1), 3, nullptr), AddOutcome::kTableFull);
  EXPECT_EQ(store.count(), 2048);
  EXPECT_EQ(store.add(MakeCa("Quillon Full CA 77", 2), 3, nullptr), AddOutcome::kAppended);
  EXPECT_EQ(store.entry(77).size(), 2);
  EXPECT_EQ(store.findEntry("C=IT, O=Quillon32 Test PKI, CN=Quillon Full CA 2047"), 2047);
  EXPECT_TRUE(store.indexesConsistent());
}

TEST(CaStore, RemoveSourceWalksByPositionAndDropsEmptiedEntries) {
  using Shapes = std::vector<std::vector<int>>;
  struct Case {
    const char* name;
    Shapes before, after_one, after_two;  // sources per entry
  } cases[] = {
      {"three in a row keep the middle", {{1, 1, 1}}, {{1}}, {}},
      {"two in a row keep the second", {{1, 1}, {3}}, {{1}, {3}}, {{3}}},
      {"four in a row", {{1, 1, 1, 1}}, {{1, 1}}, {{1}}},
      {"separated ones all go", {{1, 3, 1}}, {{3}}, {{3}}},
      {"emptied entries go, later ones move up", {{1}, {3}, {1}, {2, 1}}, {{3}, {2}}, {{3}, {2}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CaStore store;
    for (size_t e = 0; e < c.before.size(); ++e) {
      for (size_t r = 0; r < c.before[e].size(); ++r) {
        store.add(MakeCa("Quillon Walk CA " + std::to_string(e), static_cast<long long>(r + 1)),
                  c.before[e][r], nullptr);
      }
    }
    store.removeSource(1);
    EXPECT_EQ(Shape(store), c.after_one);
    EXPECT_TRUE(store.indexesConsistent());
    store.removeSource(1);
    EXPECT_EQ(Shape(store), c.after_two);
    EXPECT_TRUE(store.indexesConsistent());
  }
}

TEST(CaStore, RemoveTakesOneRecordAndAnEmptiedEntry) {
  CaStore store;
  const Certificate a1 = MakeCa("Quillon A CA", 1), a2 = MakeCa("Quillon A CA", 2);
  const Certificate b = MakeCa("Quillon B CA", 1), c = MakeCa("Quillon C CA", 1);
  for (const Certificate* cert : {&a1, &a2, &b, &c}) store.add(*cert, 3, nullptr);

  EXPECT_FALSE(store.remove(MakeCa("Quillon A CA", 3)));
  EXPECT_TRUE(store.remove(a1));
  EXPECT_FALSE(store.remove(a1));
  EXPECT_TRUE(store.remove(b.subject(), b.issuer(), b.serialNumber()));
  EXPECT_EQ(Shape(store), (std::vector<std::vector<int>>{{3}, {3}}));
  EXPECT_EQ(store.findEntry(c.subject()), 1);
  EXPECT_EQ(store.findEntry(b.subject()), -1);
  EXPECT_TRUE(store.indexesConsistent());
}

TEST(CaStore, FindsTheIssuingRecordByKeyIdentifierThenBySignature) {
  quillon::pki::CryptoDevice device;
  ASSERT_TRUE(device.open(nullptr, nullptr, 0));
  CaStore store;
  // One subject, two keys: the CRL and the old-with-new certificate are
  // signed with the key of the second record.
  store.add(Pkits("BasicSelfIssuedNewKeyOldWithNewCACert"), 3, nullptr);
  store.add(Pkits("BasicSelfIssuedNewKeyCACert"), 3, nullptr);

  const CertificateList crl = PkitsCrl("BasicSelfIssuedNewKeyCACRL");
  AuthorityKeyIdentifier aki, unknown;
  ASSERT_TRUE(crl.authorityKeyIdentifier(&aki));
  const unsigned char other_id[] = {1, 2, 3, 4};
  unknown.setKeyIdentifier(other_id, sizeof other_id);

  EXPECT_EQ(store.findIssuer(0, crl, &aki, nullptr), 1) << "by key identifier, no signature check";
  EXPECT_EQ(store.findIssuer(0, crl, nullptr, &device), 1) << "by signature";
  EXPECT_EQ(store.findIssuer(0, crl, &unknown, &device), 1) << "identifier unmatched: signature";
  EXPECT_EQ(store.findIssuer(0, crl, &unknown, nullptr), -1);
  EXPECT_EQ(store.findIssuer(0, PkitsCrl("GoodCACRL"), nullptr, &device), -1) << "another CA's";
  EXPECT_EQ(store.findIssuer(9, crl, &aki, &device), -1) << "no such entry";
  EXPECT_EQ(
      store.findIssuer(0, Pkits("BasicSelfIssuedNewKeyOldWithNewCACert"), nullptr, &device), 1);
}

// ---------------------------------------------------------------------------
// The exported functions.

std::string ReadText(const std::string& path) {
  const std::vector<uint8_t> bytes = quillon::testing::ReadFile(path);
  return std::string(bytes.begin(), bytes.end());
}

TEST(CaStore, ExportsAddLookUpRemoveAndReportFailures) {
  qt::TempDir dir;
  const qt::Pki pki = qt::MakePki(qt::KeyType::kEcP256);
  const Bytes root_der = qt::Der(pki.root.get());
  const std::string inter_pem = qt::Pem(pki.intermediate.get());
  qt::WriteFile(dir.File("good.cer"),
                qt::ReadFile(qt::TestDataPath("nist-pkits/certs/GoodCACert.crt")));
  IN_CHILD([&] {
    std::string ident = "castore";
    cache_init(C(dir.path()), C(ident), C(dir.File("log")));
    cache_setLang(1);
    cache_enableLog(7);
    void* ctx = cache_getContext();
    Bytes root = root_der;
    CHECK(cache_addCACertDER(ctx, root.data(), static_cast<unsigned>(root.size())) == 1);
    CHECK(cache_addCACertPEM(ctx, C(inter_pem)) == 1);
    CHECK(cache_addCACert(ctx, C(dir.File("good.cer"))) == 1);
    CHECK(cache_getCACertsNum(ctx) == 3);
    CHECK(cache_getErrCode(ctx) == 0xFFFFFFFFul);

    // Look-ups: by name in any case, by issuer and serial, of the issuer.
    const Certificate inter = Decoded(qt::Der(pki.intermediate.get()));
    const Certificate leaf = Decoded(qt::Der(pki.leaf.get()));
    const Certificate good = Pkits("GoodCACert");
    Name upper;
    upper.parse("C=IT, O=QUILLON32 TEST PKI, CN=QUILLON TEST INTERMEDIATE CA");
    CHECK(cache_getCACerts(ctx, &upper) == 1);
    CHECK(cache_getCACerts(ctx, M(leaf.subject())) == -1);
    CHECK(cache_getCertIndex(ctx, 1, M(inter.issuer()), inter.serialNumber()) == 0);
    CHECK(cache_getCertIndex(ctx, 1, M(inter.issuer()), BigInteger(7)) == -1);
    Certificate* copy = cache_getCACert(ctx, 1, 0);
    CHECK(copy != nullptr && *copy == inter);
    cache_releaseCertificate(copy);
    CHECK(cache_getCACert(ctx, 1, 1) == nullptr && cache_getCACert(ctx, 3, 0) == nullptr &&
          cache_getCACert(ctx, -1, 0) == nullptr);
    // The issuer's name is what counts, not the subject's.
    Bytes leaf_der = qt::Der(pki.leaf.get());
    Bytes good_der(good.der().data, good.der().data + good.der().size);
    Bytes garbage = {0x30, 0x03, 0x02, 0x01, 0x01};
    CHECK(cache_trustedCA(ctx, leaf_der.data(), leaf_der.size()) == 1);
    CHECK(cache_trustedCA(ctx, good_der.data(), good_der.size()) == 0);
    CHECK(cache_trustedCA(ctx, garbage.data(), garbage.size()) == 0);
    CHECK(cache_getCAIndex(ctx, M(leaf), 1, nullptr) == 0);
    CHECK(cache_getCAIndex(ctx, M(inter), 0, nullptr) == 0);
    CHECK(cache_getCAIndex(ctx, M(leaf), 0, nullptr) == -1);
    // A context made before cache_finalize does not reach the destroyed
    // device: with no key identifier to go by, no issuer is found.
    cache_finalize();
    CHECK(cache_getCAIndex(ctx, M(leaf), 1, nullptr) == -1);

    // Sources in all four forms; a caller's own source replaces the record.
    Certificate root_cert = Decoded(root_der);
    CHECK(cache_addCACert(ctx, &root_cert, 77) == 1);
    CHECK(cache_getCACertSource(ctx, 0, 0) == 77);
    CHECK(cache_getCACertSource(ctx, C(inter_pem)) == 3);
    CHECK(cache_getCACertSource(ctx, root.data(), static_cast<unsigned>(root.size())) == 77);
    CHECK(cache_getCACertSource(ctx, M(inter.subject()), M(inter.issuer()),
                                inter.serialNumber()) == 3);
    CHECK(cache_getCACertSource(ctx, 5, 0) == -1 && cache_getCACertSource(ctx, C("x")) == -1);

    // Trusted-list metadata per record; 0xFF "qualified" means none.
    auto* cache = static_cast<quillon::api::CacheContext*>(ctx);
    TSLMetadata m;
    m.setCountry("IT");
    m.setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/QC");
    m.setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted");
    quillon::api::AddCaCertificate(cache, Pkits("GoodsubCACert"), 1, &m);
    m.setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/PKC");
    quillon::api::AddCaCertificate(cache, Pkits("TrustAnchorRootCertificate"), 1, &m);
    auto text = [](char* t) {
      std::string s = t ? t : "<null>";
      cache_releaseCharArray(t);
      return s;
    };
    CHECK(text(cache_getCountryCode(ctx, 3, 0)) == "IT");
    CHECK(text(cache_getServiceStatus(ctx, 3, 0)) ==
          "http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted");
    CHECK(text(cache_getServiceType(ctx, 4, 0)) == "http://uri.etsi.org/TrstSvc/Svctype/CA/PKC");
    CHECK(cache_getQualified(ctx, 3, 0) == 1 && cache_getQualified(ctx, 4, 0) == 0);
    CHECK(cache_getQualified(ctx, 0, 0) == 0xFF && cache_getQualified(ctx, -1, 0) == 0xFF);
    CHECK(text(cache_getCountryCode(ctx, 0, 0)) == "<null>");
    CHECK(text(cache_getServiceType(ctx, 9, 9)) == "<null>");

    // Failures: 5195 in the context, the out-parameter and the log.
    unsigned long error = 0;
    CHECK(cache_addCACertPEM(
              ctx, C("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"), &error) ==
          0);
    CHECK(error == 5195 && cache_getErrCode(ctx) == 5195);
    CHECK(cache_addCACert(ctx, C(dir.File("missing.cer"))) == 0);
    CHECK(cache_addCACert(ctx, static_cast<Certificate*>(nullptr)) == 0);
    CHECK(cache_removeCACertDER(ctx, garbage.data(), static_cast<unsigned>(garbage.size())) == 0);

    // Removals; an emptied entry goes.
    CHECK(cache_removeCACertPEM(ctx, C(inter_pem)) == 1);
    CHECK(cache_removeCACertPEM(ctx, C(inter_pem)) == 0);
    CHECK(cache_getCACertsNum(ctx) == 4);
    CHECK(cache_removeCACert(ctx, M(good.subject()), M(good.issuer()), good.serialNumber()) == 1);
    CHECK(cache_removeSourceCACerts(ctx, 77) == 1 && cache_getCACertsNum(ctx) == 2);
    cache_clean(ctx);
    CHECK(cache_getCACertsNum(ctx) == 0);
    cache_releaseContext(ctx);

    const std::string log = ReadText(dir.File("log"));
    CHECK(log.find("]: C=IT, O=Quillon32 Test PKI, CN=Quillon Test Root CA\n") != std::string::npos);
    CHECK(log.find("]: Failed to add to the list of CA certificates\n") != std::string::npos);
  });
}

}  // namespace
