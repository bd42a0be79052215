// The CA table: adding, replacing, looking up, removing and finding the
// record that issued a signed object; then the exported functions over the
// process-wide table, each in a child process of its own.
#include "castore/ca_store.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <string>
#include <vector>

#include "quillon32/quillon32.h"
#include "support/ca_test_helpers.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using qt::C;
using quillon::castore::AddOutcome;
using quillon::castore::CaStore;
using Bytes = std::vector<uint8_t>;
using Shapes = std::vector<std::vector<int>>;

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
Shapes Shape(const CaStore& store) {
  Shapes out(static_cast<size_t>(store.count()));
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
  EXPECT_EQ(store.add(new_key, 3, nullptr), AddOutcome::kAppended);
  // Same subject, another issuer and serial: a second record of that entry.
  EXPECT_EQ(store.add(old_with_new, 2, nullptr, &new_entry), AddOutcome::kAppended);
  EXPECT_FALSE(new_entry);

  const struct {
    const Certificate* cert;
    int source;
    AddOutcome outcome;
    std::vector<int> sources;  // of entry 1 afterwards
    std::string last_serial;
  } steps[] = {
      {&new_key, 9, AddOutcome::kReplaced, {2, 9}, "13"},
      {&old_with_new, 4, AddOutcome::kKeptExisting, {2, 9}, "13"},
      {&old_with_new, 3, AddOutcome::kReplaced, {9, 3}, "01"},
  };
  for (const auto& s : steps) {
    EXPECT_EQ(store.add(*s.cert, s.source, nullptr), s.outcome) << s.source;
    EXPECT_EQ(Shape(store), (Shapes{{3}, s.sources})) << s.source;
    EXPECT_EQ(store.record(1, 1)->serial.toHex(), s.last_serial) << s.source;
    EXPECT_TRUE(store.indexesConsistent());
  }
  EXPECT_EQ(store.findRecord(1, old_with_new.issuer(), old_with_new.serialNumber()), 1);
  EXPECT_EQ(store.findRecord(1, good.issuer(), old_with_new.serialNumber()), -1);
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

  CaStore store;
  store.add(MakeCa("Quillon Case CA", 1), 3, nullptr);
  store.add(MakeCa("QUILLON case ca", 2), 3, nullptr);
  EXPECT_EQ(Shape(store), (Shapes{{3, 3}}));
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
  EXPECT_TRUE(store.indexesConsistent());
}

TEST(CaStore, RemoveSourceWalksByPositionAndDropsEmptiedEntries) {
  const struct {
    Shapes before, after_one, after_two;  // sources per entry
  } cases[] = {
      {{{1, 1}, {3}}, {{1}, {3}}, {{3}}},  // of two adjacent records the second stays
      {{{1, 1, 1}}, {{1}}, {}},
      {{{1}, {3}, {1}, {2, 1}}, {{3}, {2}}, {{3}, {2}}},
  };
  for (const auto& c : cases) {
    CaStore store;
    for (size_t e = 0; e < c.before.size(); ++e) {
      for (size_t r = 0; r < c.before[e].size(); ++r) {
        store.add(MakeCa("Quillon Walk CA " + std::to_string(e), static_cast<long long>(r + 1)),
                  c.before[e][r], nullptr);
      }
    }
    store.removeSource(1);
    EXPECT_EQ(Shape(store), c.after_one);
    store.removeSource(1);
    EXPECT_EQ(Shape(store), c.after_two);
    EXPECT_TRUE(store.indexesConsistent());
  }
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
  EXPECT_EQ(store.findIssuer(0, crl, &unknown, &device), 1) << "identifier unmatched: signature";
  EXPECT_EQ(store.findIssuer(0, crl, &unknown, nullptr), -1);
  EXPECT_EQ(store.findIssuer(0, PkitsCrl("GoodCACRL"), nullptr, &device), -1) << "another CA's";
  EXPECT_EQ(
      store.findIssuer(0, Pkits("BasicSelfIssuedNewKeyOldWithNewCACert"), nullptr, &device), 1);
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

    // Look-ups: by name in any case, by issuer and serial, of the issuer.
    const Certificate inter = Decoded(qt::Der(pki.intermediate.get()));
    const Certificate leaf = Decoded(qt::Der(pki.leaf.get()));
    const Certificate good = Pkits("GoodCACert");
    Name upper;
    upper.parse("C=IT, O=QUILLON32 TEST PKI, CN=QUILLON TEST INTERMEDIATE CA");
    CHECK(cache_getCACerts(ctx, &upper) == 1);
    CHECK(cache_getCertIndex(ctx, 1, M(inter.issuer()), inter.serialNumber()) == 0);
    CHECK(cache_getCertIndex(ctx, 1, M(inter.issuer()), BigInteger(7)) == -1);
    Certificate* copy = cache_getCACert(ctx, 1, 0);
    CHECK(copy != nullptr && *copy == inter);
    cache_releaseCertificate(copy);
    // The issuer's name is what counts, not the subject's.
    Bytes leaf_der = qt::Der(pki.leaf.get());
    Bytes good_der(good.der().data, good.der().data + good.der().size);
    Bytes garbage = {0x30, 0x03, 0x02, 0x01, 0x01};
    CHECK(cache_trustedCA(ctx, leaf_der.data(), leaf_der.size()) == 1);
    CHECK(cache_trustedCA(ctx, good_der.data(), good_der.size()) == 0);
    CHECK(cache_trustedCA(ctx, garbage.data(), garbage.size()) == 0);
    CHECK(cache_getCAIndex(ctx, M(leaf), 1, nullptr) == 0);
    CHECK(cache_getCAIndex(ctx, M(leaf), 0, nullptr) == -1);
    // A context made before cache_finalize does not reach the destroyed
    // device: with no key identifier to go by, no issuer is found.
    cache_finalize();
    CHECK(cache_getCAIndex(ctx, M(leaf), 1, nullptr) == -1);

    // A caller's own source replaces the record; sources by position and by PEM.
    Certificate root_cert = Decoded(root_der);
    CHECK(cache_addCACert(ctx, &root_cert, 77) == 1);
    CHECK(cache_getCACertSource(ctx, 0, 0) == 77);
    CHECK(cache_getCACertSource(ctx, C(inter_pem)) == 3);
    CHECK(cache_getCACertSource(ctx, 5, 0) == -1);
    CHECK(cache_getQualified(ctx, 0, 0) == 0xFF);  // no trusted-list metadata

    // Failures: 5195 in the context and the out-parameter.
    unsigned long error = 0;
    CHECK(cache_addCACertPEM(
              ctx, C("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"), &error) ==
          0);
    CHECK(error == 5195 && cache_getErrCode(ctx) == 5195);

    // Removals; an emptied entry goes.
    CHECK(cache_removeCACertPEM(ctx, C(inter_pem)) == 1);
    CHECK(cache_removeCACertPEM(ctx, C(inter_pem)) == 0);
    CHECK(cache_getCACertsNum(ctx) == 2);
    CHECK(cache_removeCACert(ctx, M(good.subject()), M(good.issuer()), good.serialNumber()) == 1);
    CHECK(cache_removeSourceCACerts(ctx, 77) == 1 && cache_getCACertsNum(ctx) == 0);
    cache_releaseContext(ctx);
    CHECK(qt::ReadText(dir.File("log")).find("]: Failed to add to the list of CA certificates\n") !=
          std::string::npos);
  });
}

}  // namespace
