// The CA table: adding, replacing, looking up, removing, finding the issuing
// record of a signed object; and the exported functions over it. The
// exported functions change process-wide state, so those cases run in a
// child process of their own (EXPECT_EXIT).
#include "castore/ca_store.h"

#include <gtest/gtest.h>
#include <strings.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "api/ca_operations.h"
#include "api/library.h"
#include "quillon32/quillon32.h"
#include "support/der_writer.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using quillon::castore::AddOutcome;
using quillon::castore::CaStore;
using quillon::castore::kMaxEntries;
using Bytes = std::vector<uint8_t>;

#define IN_CHILD(body) EXPECT_EXIT(std::exit((body) ? 0 : 1), ::testing::ExitedWithCode(0), "")

char* C(const std::string& s) { return const_cast<char*>(s.c_str()); }

Certificate Decoded(const Bytes& der) {
  Certificate c;
  EXPECT_TRUE(c.decode(der.data(), der.size()));
  return c;
}

Certificate TestData(const std::string& relative) {
  const Bytes bytes = qt::ReadFile(qt::TestDataPath(relative));
  Certificate c;
  if (!c.decode(bytes.data(), bytes.size())) {
    EXPECT_TRUE(c.decodePEM(reinterpret_cast<const char*>(bytes.data()), bytes.size())) << relative;
  }
  return c;
}

Certificate Pkits(const std::string& name) { return TestData("nist-pkits/certs/" + name + ".crt"); }

CertificateList PkitsCrl(const std::string& name) {
  const Bytes bytes = qt::ReadFile(qt::TestDataPath("nist-pkits/crls/" + name + ".crl"));
  CertificateList crl;
  EXPECT_TRUE(crl.decode(bytes.data(), bytes.size()));
  return crl;
}

// A self-signed CA with the given subject and serial; keys are reused, only
// names and serials matter here.
Certificate MakeCa(const qt::NameSpec& subject, long long serial, int key_slot = 0) {
  qt::CertSpec spec = qt::RootCaSpec(subject, qt::PooledKey(qt::KeyType::kEcP256, key_slot));
  spec.serial = serial;
  return Decoded(qt::Der(qt::MakeCert(spec).get()));
}
Certificate MakeCa(const std::string& cn, long long serial) {
  return MakeCa(qt::TestName(cn), serial);
}

// Sources of the records of an entry, in order.
std::vector<int> Sources(const CaStore& store, int entry) {
  std::vector<int> out;
  for (int r = 0; r < store.entry(entry).size(); ++r)
    out.push_back(store.entry(entry).record(r).source);
  return out;
}

std::string SerialAt(const CaStore& store, int entry, int record) {
  return store.record(entry, record)->serial.toHex();
}

TEST(CaStore, AddAppendsReplacesOrKeepsByIssuerAndSerial) {
  CaStore store;
  const Certificate good = Pkits("GoodCACert");
  const Certificate new_key = Pkits("BasicSelfIssuedNewKeyCACert");
  const Certificate old_with_new = Pkits("BasicSelfIssuedNewKeyOldWithNewCACert");

  bool new_entry = false;
  EXPECT_EQ(store.add(good, 3, nullptr, &new_entry), AddOutcome::kAppended);
  EXPECT_TRUE(new_entry);
  EXPECT_EQ(store.add(new_key, 3, nullptr, &new_entry), AddOutcome::kAppended);
  EXPECT_TRUE(new_entry);
  // Same subject, another issuer and serial: a second record of that entry.
  EXPECT_EQ(store.add(old_with_new, 2, nullptr, &new_entry), AddOutcome::kAppended);
  EXPECT_FALSE(new_entry);
  ASSERT_EQ(store.count(), 2);
  EXPECT_EQ(store.recordCount(), 3u);
  EXPECT_EQ(store.entry(1).key(),
            "C=US, O=Test Certificates 2011, CN=Basic Self-Issued New Key CA");

  struct Step {
    const char* name;
    const Certificate* cert;
    int source;
    AddOutcome outcome;
    std::vector<int> sources;  // of entry 1 afterwards
    std::string last_serial;
  } steps[] = {
      // The latest add wins and moves to the end of its entry.
      {"re-add the first record", &new_key, 9, AddOutcome::kReplaced, {2, 9}, "13"},
      {"source 4 never replaces", &old_with_new, 4, AddOutcome::kKeptExisting, {2, 9}, "13"},
      {"re-add the other one", &old_with_new, 3, AddOutcome::kReplaced, {9, 3}, "01"},
      {"same source again", &old_with_new, 3, AddOutcome::kReplaced, {9, 3}, "01"},
  };
  for (const Step& s : steps) {
    SCOPED_TRACE(s.name);
    EXPECT_EQ(store.add(*s.cert, s.source, nullptr), s.outcome);
    EXPECT_EQ(store.count(), 2);
    EXPECT_EQ(Sources(store, 1), s.sources);
    EXPECT_EQ(SerialAt(store, 1, store.entry(1).size() - 1), s.last_serial);
    EXPECT_TRUE(store.indexesConsistent());
  }
  // A record keeps its own copies.
  ASSERT_NE(store.record(0, 0)->cert(), nullptr);
  EXPECT_NE(store.record(0, 0)->cert(), &good);
  EXPECT_EQ(*store.record(0, 0)->cert(), good);
  EXPECT_EQ(store.findRecord(1, old_with_new.issuer(), old_with_new.serialNumber()), 1);
  EXPECT_EQ(store.findRecord(1, good.issuer(), old_with_new.serialNumber()), -1);
  EXPECT_EQ(store.findRecord(7, good.issuer(), good.serialNumber()), -1);
}

TEST(CaStore, SubjectKeysIgnoreTheCaseOfAsciiLettersOnly) {
  // Against the C runtime's comparison in the "C" locale, every byte pair,
  // at a position inside a word and in the tail after the last whole word.
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

  // In the table: subjects that differ only in ASCII case share an entry.
  CaStore store;
  store.add(MakeCa("Quillon Case CA", 1), 3, nullptr);
  store.add(MakeCa("QUILLON case ca", 2), 3, nullptr);
  store.add(MakeCa("Quillon Caf\xC3\xA9 CA", 3), 3, nullptr);
  store.add(MakeCa("Quillon Caf\xC3\x89 CA", 4), 3, nullptr);  // É: not folded
  ASSERT_EQ(store.count(), 3);
  EXPECT_EQ(store.entry(0).size(), 2);
  EXPECT_EQ(store.entry(0).key(), "C=IT, O=Quillon32 Test PKI, CN=Quillon Case CA");
  Name name;
  ASSERT_TRUE(name.parse("CN=QUILLON CASE CA, O=quillon32 test pki, C=it"));
  EXPECT_EQ(store.findEntry(name), 0);
}

TEST(CaStore, FullTableRefusesNewSubjectsButTakesRecordsOfKnownOnes) {
  CaStore store;
  for (int i = 0; i < kMaxEntries; ++i) {
    ASSERT_EQ(store.add(MakeCa("Quillon Full CA " + std::to_string(i), 1), 3, nullptr),
              AddOutcome::kAppended);
  }
  EXPECT_EQ(store.add(MakeCa("Quillon One Too Many CA", 1), 3, nullptr), AddOutcome::kTableFull);
  EXPECT_EQ(store.count(), kMaxEntries);
  EXPECT_EQ(store.add(MakeCa("Quillon Full CA 77", 2), 3, nullptr), AddOutcome::kAppended);
  EXPECT_EQ(store.entry(77).size(), 2);
  EXPECT_EQ(store.findEntry("C=IT, O=Quillon32 Test PKI, CN=Quillon Full CA 2047"), 2047);
  EXPECT_TRUE(store.indexesConsistent());
}

TEST(CaStore, RemoveSourceWalksByPositionAndDropsEmptyEntries) {
  struct Case {
    const char* name;
    std::vector<std::vector<int>> before;  // sources per entry
    std::vector<std::vector<int>> after_one;
    std::vector<std::vector<int>> after_two;
  } cases[] = {
      {"three in a row keep the middle", {{1, 1, 1}}, {{1}}, {}},
      {"two in a row keep the second", {{1, 1}, {3}}, {{1}, {3}}, {{3}}},
      {"separated ones all go", {{1, 3, 1}}, {{3}}, {{3}}},
      {"other sources stay", {{3, 2}, {9}}, {{3, 2}, {9}}, {{3, 2}, {9}}},
      {"emptied entries go, later ones move up", {{1}, {3}, {1}, {2, 1}}, {{3}, {2}}, {{3}, {2}}},
      {"four in a row", {{1, 1, 1, 1}}, {{1, 1}}, {{1}}},
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
    auto shape = [&] {
      std::vector<std::vector<int>> out;
      for (int e = 0; e < store.count(); ++e) out.push_back(Sources(store, e));
      return out;
    };
    store.removeSource(1);
    EXPECT_EQ(shape(), c.after_one);
    EXPECT_TRUE(store.indexesConsistent());
    store.removeSource(1);
    EXPECT_EQ(shape(), c.after_two);
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
  EXPECT_EQ(store.entry(0).size(), 1);
  EXPECT_FALSE(store.remove(a1));
  EXPECT_TRUE(store.remove(b.subject(), b.issuer(), b.serialNumber()));
  ASSERT_EQ(store.count(), 2);
  EXPECT_EQ(store.entry(1).key(), "C=IT, O=Quillon32 Test PKI, CN=Quillon C CA");
  EXPECT_EQ(store.findEntry(c.subject()), 1);
  EXPECT_EQ(store.findEntry(b.subject()), -1);
  EXPECT_TRUE(store.indexesConsistent());
  store.clear();
  EXPECT_EQ(store.count(), 0);
  EXPECT_EQ(store.findEntry(c.subject()), -1);
}

// An attribute certificate issued (and signed) by |key| under |issuer|.
Bytes AttributeCertificateBy(const qt::NameSpec& issuer, const qt::Key& key) {
  qt::DerWriter w;
  w.Begin(qt::der::kSequence);
  w.Integer(1);                 // v2
  w.Begin(qt::der::kSequence);  // holder: entityName
  w.Begin(qt::der::CtxCons(1));
  w.Begin(qt::der::CtxCons(4));
  w.Raw(qt::NameDer(qt::TestName("Quillon Attribute Holder")));
  w.End();
  w.End();
  w.End();
  w.Begin(qt::der::CtxCons(0));  // v2Form issuerName
  w.Begin(qt::der::kSequence);
  w.Begin(qt::der::CtxCons(4));
  w.Raw(qt::NameDer(issuer));
  w.End();
  w.End();
  w.End();
  w.Raw(qt::SignatureAlgorithmDer(key));
  w.Integer(5);
  w.Begin(qt::der::kSequence);
  w.GeneralizedTime(1700000000);
  w.GeneralizedTime(1900000000);
  w.End();
  w.Begin(qt::der::kSequence);  // attributes: one role
  w.Begin(qt::der::kSequence);
  w.Oid("2.5.4.72");
  w.Begin(qt::der::kSet);
  w.Begin(qt::der::kSequence);
  w.Begin(qt::der::CtxCons(1));
  w.Tlv(qt::der::Ctx(6), std::string_view("urn:role:signer"));
  w.End();
  w.End();
  w.End();
  w.End();
  w.End();
  w.End();
  return qt::SignTbs(w.Take(), key);
}

TEST(CaStore, FindsTheIssuingRecordByKeyIdentifierThenBySignature) {
  quillon::pki::CryptoDevice device;
  ASSERT_TRUE(device.open(nullptr, nullptr, 0));
  CaStore store;
  // One subject, two keys: the CRL and the old-with-new certificate are
  // signed with the key of BasicSelfIssuedNewKeyCACert, the second record.
  store.add(Pkits("BasicSelfIssuedNewKeyOldWithNewCACert"), 3, nullptr);
  store.add(Pkits("BasicSelfIssuedNewKeyCACert"), 3, nullptr);
  store.add(TestData("real-crls/dss-eu-ca-crls/CA-Justice-ECDSA-261217.cer"), 3, nullptr);
  store.add(TestData("real-crls/dss-eu-ca-crls/realts2019.crt"), 3, nullptr);

  const CertificateList crl = PkitsCrl("BasicSelfIssuedNewKeyCACRL");
  AuthorityKeyIdentifier aki, unknown;
  ASSERT_TRUE(crl.authorityKeyIdentifier(&aki));
  const unsigned char other_id[] = {1, 2, 3, 4};
  unknown.setKeyIdentifier(other_id, sizeof other_id);

  EXPECT_EQ(store.findIssuer(0, crl, &aki, nullptr), 1) << "by key identifier, no signature check";
  EXPECT_EQ(store.findIssuer(0, crl, nullptr, &device), 1) << "by signature";
  EXPECT_EQ(store.findIssuer(0, crl, &unknown, &device), 1) << "identifier unmatched: signature";
  EXPECT_EQ(store.findIssuer(0, crl, &unknown, nullptr), -1);
  EXPECT_EQ(store.findIssuer(0, PkitsCrl("GoodCACRL"), nullptr, &device), -1) << "another CA's CRL";
  EXPECT_EQ(store.findIssuer(9, crl, &aki, &device), -1) << "no such entry";
  EXPECT_EQ(store.findIssuer(0, Pkits("BasicSelfIssuedNewKeyOldWithNewCACert"), nullptr, &device),
            1);

  // Real CRLs: an ECDSA CRL whose AKI matches, and one whose issuer has the
  // same name but another key (neither identifier nor signature matches).
  auto real_crl = [](const char* name) {
    const Bytes b = qt::ReadFile(qt::TestDataPath(std::string("real-crls/dss-eu-ca-crls/") + name));
    CertificateList c;
    EXPECT_TRUE(c.decode(b.data(), b.size()));
    return c;
  };
  const CertificateList justice = real_crl("CA-5358AA45-Full.crl");
  AuthorityKeyIdentifier justice_aki;
  ASSERT_TRUE(justice.authorityKeyIdentifier(&justice_aki));
  EXPECT_EQ(store.findIssuer(1, justice, &justice_aki, nullptr), 0);
  EXPECT_EQ(store.findIssuer(1, justice, nullptr, &device), 0);
  const CertificateList realts = real_crl("realts2019.crl");
  AuthorityKeyIdentifier realts_aki;
  ASSERT_TRUE(realts.authorityKeyIdentifier(&realts_aki));
  EXPECT_EQ(store.findIssuer(2, realts, &realts_aki, &device), -1);

  // An attribute certificate, found by signature.
  const qt::NameSpec authority = qt::TestName("Quillon Attribute Authority");
  const qt::Key& key = qt::PooledKey(qt::KeyType::kEcP256, 3);
  store.add(MakeCa(authority, 1, 2), 3, nullptr);  // same name, another key
  store.add(MakeCa(authority, 2, 3), 3, nullptr);
  const Bytes ac_der = AttributeCertificateBy(authority, key);
  AttributeCertificate ac;
  ASSERT_TRUE(ac.decode(ac_der.data(), ac_der.size()));
  const int entry = store.findEntry(ac.issuer());
  ASSERT_EQ(entry, 3);
  EXPECT_EQ(store.findIssuer(entry, ac, nullptr, &device), 1);
}

// ---------------------------------------------------------------------------
// The exported functions, each case in a child process.

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// cache_init in |dir| with an English log at level 7, and a context.
void* InitWithLog(const qt::TempDir& dir) {
  std::string ident = "castore";
  const std::string log = dir.File("log");
  cache_init(C(dir.path()), C(ident), C(log));
  cache_setLang(1);
  cache_enableLog(7);
  return cache_getContext();
}

TEST(CaStore, ExportsAddLookUpAndReportFailures) {
  qt::TempDir dir;
  const qt::Pki pki = qt::MakePki(qt::KeyType::kEcP256);
  const Bytes root_der = qt::Der(pki.root.get());
  const Bytes leaf_der = qt::Der(pki.leaf.get());
  const Bytes inter_der = qt::Der(pki.intermediate.get());
  const std::string inter_pem = qt::Pem(pki.intermediate.get());
  qt::WriteFile(dir.File("good.cer"),
                qt::ReadFile(qt::TestDataPath("nist-pkits/certs/GoodCACert.crt")));
  IN_CHILD(([&] {
    void* ctx = InitWithLog(dir);
    bool ok = true;
    auto expect = [&](bool cond, const char* what) {
      if (!cond) std::fprintf(stderr, "failed: %s\n", what);
      ok = ok && cond;
    };
    std::vector<unsigned char> root = root_der;
    expect(cache_addCACertDER(ctx, root.data(), static_cast<unsigned>(root.size())) == 1, "DER");
    expect(cache_addCACertPEM(ctx, C(inter_pem)) == 1, "PEM");
    std::string file = dir.File("good.cer");
    expect(cache_addCACert(ctx, C(file)) == 1, "file");
    expect(cache_getCACertsNum(ctx) == 3, "count");
    expect(cache_getErrCode(ctx) == 0xFFFFFFFFul, "no error yet");

    // Look-ups by name (any case), by issuer and serial, and of the issuer.
    Certificate inter = Decoded(inter_der), leaf = Decoded(leaf_der);
    Name upper;
    upper.parse("C=IT, O=QUILLON32 TEST PKI, CN=QUILLON TEST INTERMEDIATE CA");
    expect(cache_getCACerts(ctx, &upper) == 1, "by name");
    expect(cache_getCACerts(ctx, const_cast<Name*>(&leaf.subject())) == -1, "absent name");
    expect(
        cache_getCertIndex(ctx, 1, const_cast<Name*>(&inter.issuer()), inter.serialNumber()) == 0,
        "by issuer and serial");
    expect(cache_getCertIndex(ctx, 1, const_cast<Name*>(&inter.issuer()), BigInteger(7)) == -1,
           "other serial");
    Certificate* copy = cache_getCACert(ctx, 1, 0);
    expect(copy && *copy == inter, "copy");
    cache_releaseCertificate(copy);
    expect(cache_getCACert(ctx, 1, 1) == nullptr && cache_getCACert(ctx, 3, 0) == nullptr &&
               cache_getCACert(ctx, -1, 0) == nullptr,
           "no such record");
    std::vector<unsigned char> leaf_bytes = leaf_der;
    expect(cache_trustedCA(ctx, leaf_bytes.data(), leaf_bytes.size()) == 1,
           "leaf's issuer trusted");
    std::vector<unsigned char> garbage = {0x30, 0x03, 0x02, 0x01, 0x01};
    expect(cache_trustedCA(ctx, garbage.data(), garbage.size()) == 0, "garbage");
    expect(cache_getCAIndex(ctx, &leaf, 1, nullptr) == 0, "issuer record by signature");
    expect(cache_getCAIndex(ctx, &inter, 0, nullptr) == 0, "root issued the intermediate");
    expect(cache_getCAIndex(ctx, &leaf, 0, nullptr) == -1, "root did not issue the leaf");

    // Sources, in all four forms; a caller's own source.
    Certificate root_cert = Decoded(root_der);
    expect(cache_addCACert(ctx, &root_cert, 77) == 1 && root_cert.isDecoded(), "own source");
    expect(cache_getCACertSource(ctx, 0, 0) == 77, "source by index");
    expect(cache_getCACertSource(ctx, C(inter_pem)) == 3, "source by PEM");
    expect(cache_getCACertSource(ctx, root.data(), static_cast<unsigned>(root.size())) == 77,
           "source by DER");
    expect(cache_getCACertSource(ctx, const_cast<Name*>(&inter.subject()),
                                 const_cast<Name*>(&inter.issuer()), inter.serialNumber()) == 3,
           "source by names");
    expect(cache_getCACertSource(ctx, 5, 0) == -1 && cache_getCACertSource(ctx, C("x")) == -1,
           "no source");

    // Failures: 5195 in the context, the out-parameter and the log.
    unsigned long error = 0;
    expect(
        cache_addCACertPEM(ctx, C("-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n"),
                           &error) == 0 &&
            error == 5195,
        "bad PEM");
    expect(cache_getErrCode(ctx) == 5195, "error code");
    expect(cache_addCACert(ctx, C(dir.File("missing.cer"))) == 0, "missing file");
    expect(cache_addCACert(ctx, static_cast<Certificate*>(nullptr)) == 0, "null certificate");
    expect(cache_removeCACertDER(ctx, garbage.data(), static_cast<unsigned>(garbage.size())) == 0,
           "remove garbage");

    // Removals.
    expect(cache_removeCACertPEM(ctx, C(inter_pem)) == 1, "remove by PEM");
    expect(cache_removeCACertPEM(ctx, C(inter_pem)) == 0, "already gone");
    expect(cache_getCACertsNum(ctx) == 2, "entry gone with its record");
    Certificate good = TestData("nist-pkits/certs/GoodCACert.crt");
    expect(cache_removeCACert(ctx, const_cast<Name*>(&good.subject()),
                              const_cast<Name*>(&good.issuer()), good.serialNumber()) == 1,
           "remove by names");
    expect(cache_removeSourceCACerts(ctx, 77) == 1 && cache_getCACertsNum(ctx) == 0, "by source");
    cache_addCACertDER(ctx, root.data(), static_cast<unsigned>(root.size()));
    cache_clean(ctx);
    expect(cache_getCACertsNum(ctx) == 0, "clean");
    cache_releaseContext(ctx);

    const std::string log = ReadText(dir.File("log"));
    expect(
        log.find("]: C=IT, O=Quillon32 Test PKI, CN=Quillon Test Root CA\n") != std::string::npos,
        "new subject logged");
    expect(log.find("]: Failed to add to the list of CA certificates\n") != std::string::npos,
           "failure logged");
    return ok;
  }()));
}

TEST(CaStore, ExportsAnswerTrustedListQueriesPerRecord) {
  const Certificate qc = Pkits("GoodCACert"), pkc = Pkits("GoodsubCACert"),
                    plain = Pkits("TrustAnchorRootCertificate");
  IN_CHILD(([&] {
    void* ctx = cache_getContext();
    TSLMetadata m;
    m.setCountry("IT");
    m.setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/QC");
    m.setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted");
    quillon::api::AddCaCertificate(static_cast<quillon::api::CacheContext*>(ctx), qc, 1, &m);
    m.setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/PKC");
    m.setCountry("BE");
    quillon::api::AddCaCertificate(static_cast<quillon::api::CacheContext*>(ctx), pkc, 1, &m);
    cache_addCACert(ctx, const_cast<Certificate*>(&plain));
    auto text = [](char* t) {
      std::string s = t ? t : "<null>";
      cache_releaseCharArray(t);
      return s;
    };
    const bool ok =
        text(cache_getCountryCode(ctx, 0, 0)) == "IT" &&
        text(cache_getCountryCode(ctx, 1, 0)) == "BE" &&
        text(cache_getServiceType(ctx, 1, 0)) == "http://uri.etsi.org/TrstSvc/Svctype/CA/PKC" &&
        text(cache_getServiceStatus(ctx, 0, 0)) ==
            "http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted" &&
        cache_getQualified(ctx, 0, 0) == 1 && cache_getQualified(ctx, 1, 0) == 0 &&
        cache_getQualified(ctx, 2, 0) == 0xFF &&
        text(cache_getCountryCode(ctx, 2, 0)) == "<null>" &&
        text(cache_getServiceType(ctx, 9, 9)) == "<null>" && cache_getQualified(ctx, -1, 0) == 0xFF;
    cache_releaseContext(ctx);
    return ok;
  }()));
}

}  // namespace
