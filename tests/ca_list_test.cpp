// The CA list file "caCertsList-3.5" and the PEM list files: what is saved
// reads back the same in a fresh process; damaged, truncated and oversized
// files are refused or cut without harm to the table or the file.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "api/ca_operations.h"
#include "api/library.h"
#include "castore/ca_list_file.h"
#include "quillon32/quillon32.h"
#include "support/ca_test_helpers.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using qt::C;
using quillon::api::Library;
using quillon::castore::CaStore;
using quillon::castore::DecodeCaList;
using quillon::der::Input;
using quillon::tsl::LoadedTslRegister;
using Bytes = std::vector<uint8_t>;

Certificate FromFile(const std::string& path) {
  const Bytes bytes = qt::ReadFile(path);
  Certificate c;
  if (!c.decode(bytes.data(), bytes.size())) {
    EXPECT_TRUE(c.decodePEM(reinterpret_cast<const char*>(bytes.data()), bytes.size())) << path;
  }
  return c;
}

// Adds PKITS CAs (one subject with two keys, a negative serial) and real CAs
// (ECDSA, and some taken from trusted lists) through |add|(certificate,
// source, metadata or null): sources cycle through the kinds a table meets,
// and certificates from a trusted list come with the metadata their list gives.
template <class Add>
void AddSample(Add&& add) {
  static const std::vector<std::string> files = {
      "nist-pkits/certs/TrustAnchorRootCertificate.crt",
      "nist-pkits/certs/BasicSelfIssuedNewKeyCACert.crt",
      "nist-pkits/certs/BasicSelfIssuedNewKeyOldWithNewCACert.crt",
      "nist-pkits/certs/NegativeSerialNumberCACert.crt",
      "real-crls/dss-eu-ca-crls/CA-Justice-ECDSA-261217.cer",
      "real-crls/dss-eu-ca-crls/Belgium-Root-CA4.from-BE-TL-seq66.cer",
      "real-crls/dss-eu-ca-crls/ChamberSign-AC2etoiles.from-FR-TL-seq112.cer",
  };
  for (size_t i = 0; i < files.size(); ++i) {
    const std::string& file = files[i];
    const size_t at = file.find(".from-");
    const int sources[] = {2, 3, 4, -5, 1000};  // cycled
    TSLMetadata m;
    if (at != std::string::npos) {
      m.setCountry(file.substr(at + 6, 2).c_str());
      m.setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/QC");
      m.setServiceName(file.substr(file.rfind('/') + 1, at - file.rfind('/') - 1).c_str());
      m.setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted");
      m.setHistory(new TSLMetadata);
      m.history()->setServiceStatus("http://uri.etsi.org/TrstSvc/Svcstatus/accredited");
      m.history()->setStatusStartingTime("2013-01-01T00:00:00Z");
    }
    add(FromFile(qt::TestDataPath(file)), at == std::string::npos ? sources[i % 5] : 1,
        at == std::string::npos ? nullptr : &m);
  }
}

CaStore SampleStore() {
  CaStore store;
  AddSample([&](const Certificate& c, int s, const TSLMetadata* m) { store.add(c, s, m); });
  return store;
}

LoadedTslRegister SampleRegister() {
  LoadedTslRegister reg;
  reg.record({{'B', 'E'}, 66, "https://tsl.belgium.be/tsl-be.xml"});
  reg.record({{'F', 'R'}, 112, std::nullopt});
  return reg;
}
Bytes RegisterBytes() {
  Bytes out;
  SampleRegister().encode(&out);
  return out;
}

// Everything a caller can observe of a table and the register, as text, in order.
std::string Describe(const CaStore& store, const LoadedTslRegister& reg) {
  std::string out;
  for (int e = 0; e < store.count(); ++e) {
    out += "[" + store.entry(e).key() + "]\n";
    for (int r = 0; r < store.entry(e).size(); ++r) {
      const auto& rec = *store.record(e, r);
      out += "  " + rec.issuer->toString() + " #" + rec.serial.toHex() + " source " +
             std::to_string(rec.source);
      if (rec.certificate) {
        const ByteView d = rec.certificate->der();
        if (!rec.cert() || rec.cert()->serialNumber() != rec.serial) out += " undecodable";
        out += " der " + qt::Hex(Bytes(d.data, d.data + d.size)).substr(0, 64) + "/" +
               std::to_string(d.size);
      }
      for (const TSLMetadata* m = rec.metadata.get(); m; m = m->history()) {
        auto t = [](const char* s) { return std::string(s ? s : "-") + ";"; };
        out += " | " + std::string(m->country(), 2) + ";" + t(m->serviceType()) +
               t(m->serviceName()) + t(m->serviceStatus()) + t(m->statusStartingTime());
      }
      out += "\n";
    }
  }
  for (const auto& i : reg.items()) {
    out += std::string(i.country, 2) + " " + std::to_string(i.sequenceNumber) + " " +
           i.location.value_or("-") + "\n";
  }
  return out;
}

Bytes Encode(const CaStore& store, const LoadedTslRegister& reg) {
  Bytes out;
  quillon::castore::EncodeCaList(store, reg, &out);
  return out;
}

// A SEQUENCE of the given encodings.
Bytes Seq(const std::vector<Bytes>& parts) {
  Bytes content, out;
  for (const Bytes& p : parts) content.insert(content.end(), p.begin(), p.end());
  quillon::der::AppendHeader(quillon::der::kSequence, content.size(), &out);
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

// A CA list file of (key, records) entries followed by |after|, for shapes
// the store never writes. A record is Seq({certificate, issuer, serial,
// source, metadata}), any of them left out or replaced.
Bytes File(const std::vector<std::pair<std::string, std::vector<Bytes>>>& entries,
           const Bytes& after = {}) {
  std::vector<Bytes> encoded;
  for (const auto& [key, records] : entries) {
    Bytes utf8;
    quillon::der::AppendHeader(quillon::der::kUtf8String, key.size(), &utf8);
    utf8.insert(utf8.end(), key.begin(), key.end());
    encoded.push_back(Seq({utf8, Seq(records)}));
  }
  Bytes out = Seq(encoded);
  out.insert(out.end(), after.begin(), after.end());
  return out;
}

Bytes Tlv(const Certificate& c) { return Bytes(c.der().data, c.der().data + c.der().size); }
Bytes IssuerOf(const Certificate& c) {
  return Bytes(c.issuerBytes().data, c.issuerBytes().data + c.issuerBytes().size);
}
Bytes Int(int v) { return BigInteger(v).encode(); }
Bytes Record(const Certificate& c) {
  return Seq({Tlv(c), IssuerOf(c), c.serialNumber().encode(), Int(3)});
}

// Two CAs' records each filed under the other's subject: well formed, but
// the table would answer for one CA with the other.
Bytes SwappedKeysFile(const Certificate& a, const Certificate& b) {
  return File({{a.subject().toString(), {Record(b)}}, {b.subject().toString(), {Record(a)}}});
}

// The file checked in for the command-line tests pins the format: a change
// that would make older files unreadable or different shows here.
// QUILLON_REGENERATE_FIXTURES=1 writes it anew.
TEST(CaList, CheckedInFileIsTheEncodingOfItsTable) {
  const std::string source = QUILLON_SOURCE_DIR, examples = source + "/examples/ca/";
  const std::string tl = "http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/";
  CaStore store;
  for (const auto& [file, country, name, type] :
       {std::tuple{"Belgium-Root-CA4.from-BE-TL-seq66.cer", "BE", "Belgium Root CA4", "CA/QC"},
        std::tuple{"TI-Trust-Technologies-CA1.from-IT-TL-seq194.cer", "IT",
                   "TI Trust Technologies CA 1", "CA/PKC"}}) {
    TSLMetadata m;
    m.setCountry(country);
    m.setHistory(new TSLMetadata);
    for (TSLMetadata* e : {&m, m.history()}) {
      e->setServiceType((std::string("http://uri.etsi.org/TrstSvc/Svctype/") + type).c_str());
      e->setServiceName(name);
    }
    m.setServiceStatus((tl + "granted").c_str());
    m.setStatusStartingTime("2016-06-30T22:00:00Z");
    m.history()->setServiceStatus((tl + "undersupervision").c_str());
    m.history()->setStatusStartingTime("2012-07-01T00:00:00Z");
    store.add(FromFile(examples + "from-trusted-lists/" + file), 1, &m);
  }
  store.add(FromFile(examples + "quillon-example-root-ca.pem"), 3, nullptr);
  LoadedTslRegister reg;
  reg.record({{'B', 'E'}, 66, "https://tsl.belgium.be/tsl-be.xml"});
  reg.record({{'I', 'T'}, 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"});
  const std::string fixture = source + "/tests/cli/trusted-list-cas/caCertsList-3.5";
  const char* regenerate = std::getenv("QUILLON_REGENERATE_FIXTURES");
  if (regenerate && std::string(regenerate) == "1") qt::WriteFile(fixture, Encode(store, reg));
  EXPECT_EQ(qt::ReadFile(fixture), Encode(store, reg));
}

TEST(CaList, OversizedFileKeepsTheFirst2048EntriesAndReadsTheRegister) {
  const Certificate ca = FromFile(qt::TestDataPath("nist-pkits/certs/GoodCACert.crt"));
  const Bytes record = Seq({IssuerOf(ca), ca.serialNumber().encode(), Int(3)});  // no certificate
  std::vector<std::pair<std::string, std::vector<Bytes>>> entries;
  for (int i = 0; i < 3000; ++i) entries.push_back({"CN=Entry " + std::to_string(i), {record}});
  CaStore store;
  LoadedTslRegister tsls;
  ASSERT_TRUE(DecodeCaList(Input(File(entries, RegisterBytes())), &store, &tsls));
  EXPECT_EQ(store.count(), 2048);
  EXPECT_EQ(store.entry(2047).key(), "CN=Entry 2047");
  EXPECT_EQ(tsls.items(), SampleRegister().items());
}

bool Decodes(const Bytes& file) {
  CaStore store;
  LoadedTslRegister tsls;
  return DecodeCaList(Input(file), &store, &tsls);
}

TEST(CaList, DamagedFilesAreRefused) {
  const Certificate ca = FromFile(qt::TestDataPath("nist-pkits/certs/GoodCACert.crt"));
  const Certificate other =
      FromFile(qt::TestDataPath("nist-pkits/certs/BasicSelfIssuedNewKeyOldWithNewCACert.crt"));
  const Bytes serial = ca.serialNumber().encode();
  const Bytes good = Record(ca);
  const std::string key = ca.subject().toString();
  const std::string upper_key = "C=US, O=TEST CERTIFICATES 2011, CN=GOOD CA";
  auto one = [&](const Bytes& record) { return File({{key, {record}}}); };
  Bytes half_cert = Tlv(ca);
  half_cert.resize(half_cert.size() / 2);
  const Bytes reg = RegisterBytes();
  Bytes reg_then_null = reg;
  reg_then_null.insert(reg_then_null.end(), {0x05, 0x00});

  const struct {
    const char* name;
    Bytes bytes;
  } cases[] = {
      {"entry without records", File({{key, {}}})},
      {"two entries under one key", File({{key, {good}}, {upper_key, {good}}})},
      {"one record twice", File({{key, {good, good}}})},
      {"records under each other's keys", SwappedKeysFile(ca, other)},
      {"serial not the certificate's", one(Seq({Tlv(ca), IssuerOf(ca), Int(99), Int(3)}))},
      {"issuer not the certificate's", one(Seq({Tlv(ca), IssuerOf(other), serial, Int(3)}))},
      {"damaged certificate", one(Seq({half_cert, IssuerOf(ca), serial, Int(3)}))},
      {"source missing", one(Seq({Tlv(ca), IssuerOf(ca), serial}))},
      {"metadata not metadata", one(Seq({Tlv(ca), IssuerOf(ca), serial, Int(1), {0x30, 0x00}}))},
      {"bytes after the register", File({{key, {good}}}, reg_then_null)},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(Decodes(c.bytes)) << c.name;
  }
  // A subject is its entry's whatever the case of its letters.
  EXPECT_TRUE(Decodes(File({{upper_key, {good}}})));

  // Every truncation of a real file is refused, but the one that drops
  // exactly the register: that is a file of the table alone.
  const Bytes valid = Encode(SampleStore(), SampleRegister());
  const size_t table_size = valid.size() - reg.size();
  for (size_t n = 0; n < valid.size(); ++n) {
    if (n == table_size) continue;
    ASSERT_FALSE(Decodes(Bytes(valid.begin(), valid.begin() + n))) << n;
  }
}

// ---------------------------------------------------------------------------
// Through the exported functions.

// cache_init in |dir| with an English log at level 7, and a context.
void* Init(const qt::TempDir& dir) {
  std::string ident = "calist";
  cache_init(C(dir.path()), C(ident), C(dir.File("log")));
  cache_setLang(1);
  cache_enableLog(7);
  return cache_getContext();
}

// The library's table and register, described.
std::string Loaded() { return Describe(Library::Get().ca_store(), Library::Get().loaded_tsls()); }

bool Logged(const qt::TempDir& dir, const std::string& line) {
  return qt::ReadText(dir.File("log")).find("]: " + line + "\n") != std::string::npos;
}

// A list saved by one process reads back the same in another; failed loads
// and saves that have nothing to write leave the table and the file alone.
TEST(CaList, SavedListReadsBackInAFreshProcessAndFailuresHarmNothing) {
  qt::TempDir dir;
  const std::string path = dir.File("caCertsList-3.5");
  const std::string expected = Describe(SampleStore(), SampleRegister());
  const Bytes swapped =
      SwappedKeysFile(FromFile(qt::TestDataPath("nist-pkits/certs/GoodCACert.crt")),
                      FromFile(qt::TestDataPath("nist-pkits/certs/NoCRLCACert.crt")));

  // One process fills the table through the library and saves it over an
  // older file readable by all...
  IN_CHILD([&] {
    void* ctx = Init(dir);
    unsigned long error = 0;
    CHECK(cache_loadCACertList(ctx, &error) == 0 && error == 5150);  // no file yet
    CHECK(Logged(dir, "Failed to access the list of CA certificates"));
    qt::WriteFile(path, std::string("older file, readable by all"));
    CHECK(chmod(path.c_str(), 0644) == 0);
    AddSample([&](const Certificate& c, int s, const TSLMetadata* m) {
      CHECK(quillon::api::AddCaCertificate(static_cast<quillon::api::CacheContext*>(ctx), c, s, m));
    });
    Library::Get().loaded_tsls() = SampleRegister();
    CHECK(cache_saveCACertList(ctx) == 1);
    cache_releaseContext(ctx);
    struct stat st {};
    CHECK(stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600);
  });
  const Bytes saved = qt::ReadFile(path);

  // ...and another, starting afresh, reads the same back and saves the same bytes.
  IN_CHILD([&] {
    void* ctx = Init(dir);
    unsigned long error = 0;
    CHECK(cache_loadCACertList(ctx, &error) == 1 && error == 0);
    CHECK(Loaded() == expected && Library::Get().ca_store().indexesConsistent());
    CHECK(cache_saveCACertList(ctx) == 1 && qt::ReadFile(path) == saved);

    // Damaged, truncated and oversized files: each refused, table and file kept.
    for (const Bytes& bad : {Bytes(saved.begin(), saved.begin() + 999), Bytes(99, 0x30),
                             Bytes{0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF}, swapped}) {
      qt::WriteFile(path, bad);
      error = 0;
      CHECK(cache_loadCACertList(ctx, &error) == 0 && error == 5150);
      CHECK(Loaded() == expected && qt::ReadFile(path) == bad);
    }
    qt::WriteFile(path, saved);
    CHECK(truncate(path.c_str(), quillon::castore::kMaxCaListFileSize + 1) == 0);  // sparse
    CHECK(cache_loadCACertList(ctx) == 0 && Loaded() == expected);

    // An empty table is still saved while a trusted list is loaded...
    cache_clean(ctx);
    CHECK(cache_saveCACertList(ctx) == 1 && cache_loadCACertList(ctx) == 1);
    CHECK(Loaded() == Describe(CaStore(), SampleRegister()));
    // ...but with none it writes nothing: the old file stays; so does a
    // failed PEM import, which leaves the table empty.
    qt::WriteFile(path, saved);
    Library::Get().loaded_tsls().clear();
    CHECK(cache_saveCACertList(ctx) == 0 && qt::ReadFile(path) == saved);
    CHECK(cache_importCACertsListPEM(ctx, C(dir.File("missing.pem"))) == 0);
    CHECK(qt::ReadFile(path) == saved);
    cache_releaseContext(ctx);
  });
}

std::string Pem(const Bytes& der) { return Buffer(der.data(), der.size()).toPEM("CERTIFICATE"); }
std::string PkitsPem(const std::string& name) {
  return Pem(qt::ReadFile(qt::TestDataPath("nist-pkits/certs/" + name + ".crt")));
}

TEST(CaList, PemListsInitialiseOrAddAndStopAtTheFirstBadBlock) {
  qt::TempDir dir;
  const std::string good_list = "# three CAs\n" + PkitsPem("TrustAnchorRootCertificate") +
                                PkitsPem("GoodCACert") + PkitsPem("NoCRLCACert");
  const std::string bad_block =
      "-----BEGIN CERTIFICATE-----\r\nMIIBIjANBgkqhkiG9w0BAQEFAAOC\r\n-----END CERTIFICATE-----\r\n";
  qt::WriteFile(dir.File("good.pem"), good_list);
  qt::WriteFile(dir.File("two-then-bad.pem"), PkitsPem("GoodsubCACert") +
                                                  PkitsPem("BasicSelfIssuedNewKeyCACert") +
                                                  bad_block + good_list);
  qt::WriteFile(dir.File("ber.pem"), Pem(qt::LongFormLength(qt::ReadFile(
                                         qt::TestDataPath("nist-pkits/certs/GoodsubCACert.crt")))));
  IN_CHILD([&] {
    void* ctx = Init(dir);
    CHECK(cache_initCACertListPEM(ctx, C(dir.File("good.pem"))) == 1);
    CHECK(cache_getCACertsNum(ctx) == 3 && cache_getCACertSource(ctx, 2, 0) == 2);
    // Addition keeps what is there and uses source 3; a BER certificate is
    // taken with a warning.
    CHECK(cache_addCACertListPEM(ctx, C(dir.File("ber.pem"))) == 1);
    CHECK(cache_getCACertsNum(ctx) == 4 && cache_getCACertSource(ctx, 3, 0) == 3);
    CHECK(Logged(dir, "Certificare encoding not conform to the BER format"));
    // Two good blocks, then a bad one: those two stay, the rest is not read.
    CHECK(cache_initCACertListPEM(ctx, C(dir.File("two-then-bad.pem"))) == 0);
    CHECK(cache_getCACertsNum(ctx) == 2);
    CHECK(Logged(dir, "Failed to initialize the list of CA certificates"));
    CHECK(cache_addCACertListPEM(ctx, C(dir.File("two-then-bad.pem"))) == 0);
    CHECK(cache_getCACertsNum(ctx) == 2 && cache_getCACertSource(ctx, 0, 0) == 3);
    cache_releaseContext(ctx);
  });
}

}  // namespace
