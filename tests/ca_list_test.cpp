// The CA list file "caCertsList-3.5" and the PEM list files: what is saved
// reads back the same in a fresh process; damaged, truncated and oversized
// files are refused or cut without harm; PEM initialisation and addition.
// Cases that go through the library's process-wide state run in a child
// process of their own (EXPECT_EXIT); each child starts from the untouched
// state of the test process.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "api/ca_operations.h"
#include "api/library.h"
#include "castore/ca_list_file.h"
#include "quillon32/quillon32.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using quillon::api::Library;
using quillon::castore::CaStore;
using quillon::der::Input;
using quillon::tsl::LoadedTSLInfo;
using quillon::tsl::LoadedTslRegister;
using Bytes = std::vector<uint8_t>;

#define IN_CHILD(body) EXPECT_EXIT(std::exit((body) ? 0 : 1), ::testing::ExitedWithCode(0), "")

char* C(const std::string& s) { return const_cast<char*>(s.c_str()); }

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

Certificate FromFile(const std::string& relative) {
  const Bytes bytes = qt::ReadFile(qt::TestDataPath(relative));
  Certificate c;
  if (!c.decode(bytes.data(), bytes.size())) {
    EXPECT_TRUE(c.decodePEM(reinterpret_cast<const char*>(bytes.data()), bytes.size())) << relative;
  }
  return c;
}

// Real certificates: PKITS CAs (one subject with two keys, a long and a
// negative serial, UTF8String names), real CRL issuers (ECDSA P-256 and
// P-521, RSA-PSS, a PEM file) and CA certificates taken from trusted lists.
const std::vector<std::string>& RealCertificates() {
  static const std::vector<std::string> files = {
      "nist-pkits/certs/TrustAnchorRootCertificate.crt",
      "nist-pkits/certs/GoodCACert.crt",
      "nist-pkits/certs/BasicSelfIssuedNewKeyCACert.crt",
      "nist-pkits/certs/BasicSelfIssuedNewKeyOldWithNewCACert.crt",
      "nist-pkits/certs/LongSerialNumberCACert.crt",
      "nist-pkits/certs/NegativeSerialNumberCACert.crt",
      "nist-pkits/certs/UTF8StringEncodedNamesCACert.crt",
      "nist-pkits/certs/RolloverfromPrintableStringtoUTF8StringCACert.crt",
      "real-crls/dss-eu-ca-crls/CA-Justice-ECDSA-261217.cer",
      "real-crls/dss-eu-ca-crls/EE-GovCA2018.pem.crt",
      "real-crls/dss-eu-ca-crls/D-TRUST_Root_CA_1_2017.crt",
      "real-crls/dss-eu-ca-crls/Belgium-Root-CA4.from-BE-TL-seq66.cer",
      "real-crls/dss-eu-ca-crls/TI-Trust-Technologies-CA1.from-IT-TL-seq194.cer",
      "real-crls/dss-eu-ca-crls/ChamberSign-AC2etoiles.from-FR-TL-seq112.cer",
      "real-crls/dss-eu-ca-crls/RENIEC-ClassII-HighGrade-CA.from-PE-TSL-seq25.cer",
  };
  return files;
}

// Metadata as a trusted list gives it, for the certificates that came from one.
TSLMetadata MetadataFor(const std::string& file) {
  TSLMetadata m;
  const size_t at = file.find(".from-");
  if (at == std::string::npos) return m;
  m.setCountry(file.substr(at + 6, 2).c_str());
  m.setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/QC");
  m.setServiceName(file.substr(file.rfind('/') + 1, at - file.rfind('/') - 1).c_str());
  m.setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted");
  m.setStatusStartingTime("2016-06-30T22:00:00Z");
  auto* h = new TSLMetadata;
  h->setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/undersupervision");
  h->setServiceType("http://uri.etsi.org/TrstSvc/Svctype/CA/QC");
  h->setStatusStartingTime("2013-01-01T00:00:00Z");
  m.setHistory(h);
  return m;
}

// Sources cycle through the kinds a table meets, trusted-list ones with metadata.
int SourceFor(size_t i, const std::string& file) {
  if (file.find(".from-") != std::string::npos) return 1;
  const int sources[] = {2, 3, 4, -5, 1000};
  return sources[i % 5];
}

LoadedTSLInfo Info(const char* country, int seq, const char* location) {
  LoadedTSLInfo info;
  info.country[0] = country[0];
  info.country[1] = country[1];
  info.sequenceNumber = seq;
  if (location) info.location = location;
  return info;
}

LoadedTslRegister SampleRegister() {
  LoadedTslRegister reg;
  reg.record(Info("IT", 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"));
  reg.record(Info("BE", 66, "https://tsl.belgium.be/tsl-be.xml"));
  reg.record(Info("FR", 112, nullptr));
  return reg;
}

// The table every round trip below starts from, built with the store itself.
CaStore SampleStore() {
  CaStore store;
  const auto& files = RealCertificates();
  for (size_t i = 0; i < files.size(); ++i) {
    const TSLMetadata m = MetadataFor(files[i]);
    const int source = SourceFor(i, files[i]);
    store.add(FromFile(files[i]), source, source == 1 ? &m : nullptr);
  }
  return store;
}

// Everything a caller can observe of a table, as text, in order.
std::string Describe(const CaStore& store) {
  std::string out;
  for (int e = 0; e < store.count(); ++e) {
    out += "[" + store.entry(e).key() + "]\n";
    for (int r = 0; r < store.entry(e).size(); ++r) {
      const auto& rec = store.entry(e).record(r);
      out += "  " + rec.issuer->toString() + " #" + rec.serial.toHex() + " source " +
             std::to_string(rec.source);
      if (rec.certificate) {
        const ByteView d = rec.certificate->der();
        if (!rec.cert() || rec.cert()->serialNumber() != rec.serial) out += " undecodable";
        out += " der " + qt::Hex(Bytes(d.data, d.data + d.size)).substr(0, 64) + "/" +
               std::to_string(d.size);
      }
      for (const TSLMetadata* m = rec.metadata.get(); m; m = m->history()) {
        out += std::string(" | ") + std::string(m->country(), 2).c_str() + ";" +
               (m->serviceType() ? m->serviceType() : "-") + ";" +
               (m->serviceName() ? m->serviceName() : "-") + ";" +
               (m->serviceStatus() ? m->serviceStatus() : "-") + ";" +
               (m->statusStartingTime() ? m->statusStartingTime() : "-");
      }
      out += "\n";
    }
  }
  return out;
}

std::string Describe(const LoadedTslRegister& reg) {
  std::string out;
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

TEST(CaList, FileRoundTripsEntriesRecordsSourcesMetadataAndRegister) {
  const CaStore store = SampleStore();
  ASSERT_GE(store.count(), 10);
  ASSERT_EQ(store.entry(2).size(), 2);  // the PKITS subject with two keys
  const LoadedTslRegister reg = SampleRegister();
  for (const bool with_register : {true, false}) {
    const LoadedTslRegister& r = with_register ? reg : LoadedTslRegister();
    const Bytes file = Encode(store, r);
    // The table alone is one DER element; the register is a second one.
    EXPECT_EQ(quillon::der::IsStrictDer(Input(file)), !with_register);
    CaStore back;
    LoadedTslRegister back_reg;
    ASSERT_TRUE(quillon::castore::DecodeCaList(Input(file), &back, &back_reg));
    EXPECT_EQ(Describe(back), Describe(store));
    EXPECT_EQ(Describe(back_reg), Describe(r));
    EXPECT_TRUE(back.indexesConsistent());
    // And again: the encoding of what was read is the same file.
    EXPECT_EQ(Encode(back, back_reg), file);
  }
  // A register with no table is still written, behind an empty table.
  const Bytes only_register = Encode(CaStore(), reg);
  ASSERT_GE(only_register.size(), 2u);
  EXPECT_EQ(only_register[0], 0x30);
  EXPECT_EQ(only_register[1], 0x00);
  EXPECT_TRUE(Encode(CaStore(), LoadedTslRegister()).empty());
}

// Builds a CA list file entry by entry (for shapes the store never writes).
struct FileBuilder {
  Bytes entries;
  void Entry(const std::string& key, const std::vector<Bytes>& records) {
    quillon::der::Writer w(&entries);
    w.Open(quillon::der::kSequence);
    w.AddTLV(quillon::der::kUtf8String, Input(std::string_view(key)));
    w.Open(quillon::der::kSequence);
    for (const Bytes& r : records) w.AddRaw(Input(r));
    w.Close();
    w.Close();
  }
  Bytes Take(const Bytes& after = {}) const {
    Bytes out;
    quillon::der::AppendHeader(quillon::der::kSequence, entries.size(), &out);
    out.insert(out.end(), entries.begin(), entries.end());
    out.insert(out.end(), after.begin(), after.end());
    return out;
  }
};

// One record: certificate, issuer, serial, source (each part given as bytes).
Bytes Record(const std::vector<Bytes>& parts) {
  Bytes content;
  for (const Bytes& p : parts) content.insert(content.end(), p.begin(), p.end());
  Bytes out;
  quillon::der::AppendHeader(quillon::der::kSequence, content.size(), &out);
  out.insert(out.end(), content.begin(), content.end());
  return out;
}

Bytes Tlv(const Certificate& c) { return Bytes(c.der().data, c.der().data + c.der().size); }
Bytes IssuerOf(const Certificate& c) {
  return Bytes(c.issuerBytes().data, c.issuerBytes().data + c.issuerBytes().size);
}
Bytes SerialOf(const Certificate& c) { return c.serialNumber().encode(); }
Bytes Int(int v) { return BigInteger(v).encode(); }

// The CA list file checked in for the command-line tests: trusted-list
// certificates with their metadata, one added by a caller, and a register.
// It pins the file format: a change that would make older files unreadable
// or different shows here. QUILLON_REGENERATE_FIXTURES=1 writes it anew.
TEST(CaList, CheckedInFileIsTheEncodingOfItsTable) {
  const std::string examples = std::string(QUILLON_SOURCE_DIR) + "/examples/ca/";
  auto cert = [&](const std::string& file) {
    const Bytes b = qt::ReadFile(examples + file);
    Certificate c;
    if (!c.decode(b.data(), b.size())) {
      EXPECT_TRUE(c.decodePEM(reinterpret_cast<const char*>(b.data()), b.size())) << file;
    }
    return c;
  };
  auto service = [](const char* country, const char* name, const char* type) {
    TSLMetadata m;
    m.setCountry(country);
    m.setServiceType(type);
    m.setServiceName(name);
    m.setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/granted");
    m.setStatusStartingTime("2016-06-30T22:00:00Z");
    auto* h = new TSLMetadata;
    h->setServiceType(type);
    h->setServiceName(name);
    h->setServiceStatus("http://uri.etsi.org/TrstSvc/TrustedList/Svcstatus/undersupervision");
    h->setStatusStartingTime("2012-07-01T00:00:00Z");
    m.setHistory(h);
    return m;
  };
  CaStore store;
  const TSLMetadata be = service("BE", "Belgium Root CA4", "http://uri.etsi.org/TrstSvc/Svctype/CA/QC");
  const TSLMetadata it = service("IT", "TI Trust Technologies CA 1",
                                 "http://uri.etsi.org/TrstSvc/Svctype/CA/PKC");
  store.add(cert("from-trusted-lists/Belgium-Root-CA4.from-BE-TL-seq66.cer"), 1, &be);
  store.add(cert("from-trusted-lists/TI-Trust-Technologies-CA1.from-IT-TL-seq194.cer"), 1, &it);
  store.add(cert("quillon-example-root-ca.pem"), 3, nullptr);
  LoadedTslRegister reg;
  reg.record(Info("BE", 66, "https://tsl.belgium.be/tsl-be.xml"));
  reg.record(Info("IT", 194, "https://eidas.agid.gov.it/TL/TSL-IT.xml"));
  const Bytes expected = Encode(store, reg);

  const std::string fixture =
      std::string(QUILLON_SOURCE_DIR) + "/tests/cli/trusted-list-cas/caCertsList-3.5";
  const char* regenerate = std::getenv("QUILLON_REGENERATE_FIXTURES");
  if (regenerate && std::string(regenerate) == "1") qt::WriteFile(fixture, expected);
  const Bytes file = qt::ReadFile(fixture);
  EXPECT_EQ(file, expected);
  CaStore back;
  LoadedTslRegister back_reg;
  ASSERT_TRUE(quillon::castore::DecodeCaList(Input(file), &back, &back_reg));
  EXPECT_EQ(Describe(back), Describe(store));
  EXPECT_EQ(Describe(back_reg), Describe(reg));
}

TEST(CaList, OversizedFileKeepsTheFirst2048Entries) {
  const Certificate ca = FromFile("nist-pkits/certs/GoodCACert.crt");
  const Bytes record = Record({Tlv(ca), IssuerOf(ca), SerialOf(ca), Int(3)});
  FileBuilder b;
  for (int i = 0; i < 3000; ++i) b.Entry("CN=Entry " + std::to_string(i), {record});
  Bytes reg;
  SampleRegister().encode(&reg);
  CaStore store;
  LoadedTslRegister tsls;
  ASSERT_TRUE(quillon::castore::DecodeCaList(Input(b.Take(reg)), &store, &tsls));
  EXPECT_EQ(store.count(), 2048);
  EXPECT_EQ(store.entry(2047).key(), "CN=Entry 2047");
  EXPECT_EQ(Describe(tsls), Describe(SampleRegister()));  // the register behind is still read
}

TEST(CaList, DamagedFilesAreRefused) {
  const Certificate ca = FromFile("nist-pkits/certs/GoodCACert.crt");
  const Certificate other = FromFile("nist-pkits/certs/BasicSelfIssuedNewKeyOldWithNewCACert.crt");
  const Bytes good_record = Record({Tlv(ca), IssuerOf(ca), SerialOf(ca), Int(3)});
  auto file = [&](const std::vector<std::pair<std::string, std::vector<Bytes>>>& entries,
                  const Bytes& after = {}) {
    FileBuilder b;
    for (const auto& [key, records] : entries) b.Entry(key, records);
    return b.Take(after);
  };
  Bytes truncated_cert = Tlv(ca);
  truncated_cert.resize(truncated_cert.size() / 2);
  Bytes reg;
  SampleRegister().encode(&reg);
  const Bytes valid = Encode(SampleStore(), SampleRegister());

  struct Case {
    const char* name;
    Bytes bytes;
  } cases[] = {
      {"empty file", {}},
      {"not a SEQUENCE", {0x31, 0x00}},
      {"indefinite length", {0x30, 0x80, 0x00, 0x00}},
      {"length beyond the file", {0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF, 0x30}},
      {"entry without records", file({{"CN=A", {}}})},
      {"two entries under one key", file({{"CN=A", {good_record}}, {"cn=a", {good_record}}})},
      {"NUL in a key", file({{std::string("CN=A\0B", 6), {good_record}}})},
      {"one record twice", file({{"CN=A", {good_record, good_record}}})},
      {"serial not the certificate's",
       file({{"CN=A", {Record({Tlv(ca), IssuerOf(ca), Int(99), Int(3)})}}})},
      {"issuer not the certificate's",
       file({{"CN=A", {Record({Tlv(ca), IssuerOf(other), SerialOf(ca), Int(3)})}}})},
      {"damaged certificate",
       file({{"CN=A", {Record({truncated_cert, IssuerOf(ca), SerialOf(ca), Int(3)})}}})},
      {"source missing", file({{"CN=A", {Record({Tlv(ca), IssuerOf(ca), SerialOf(ca)})}}})},
      {"source beyond 32 bits",
       file({{"CN=A",
              {Record({Tlv(ca), IssuerOf(ca), SerialOf(ca), {0x02, 0x05, 1, 0, 0, 0, 0}})}}})},
      {"metadata not metadata",
       file({{"CN=A", {Record({Tlv(ca), IssuerOf(ca), SerialOf(ca), Int(1), {0x30, 0x00}})}}})},
      {"element after the metadata",
       file({{"CN=A", {Record({Tlv(ca), IssuerOf(ca), SerialOf(ca), Int(3), Int(3)})}}})},
      {"garbage after the table", file({{"CN=A", {good_record}}}, {0x00, 0x00})},
      {"bytes after the register", file({{"CN=A", {good_record}}},
                                        [&] {
                                          Bytes r = reg;
                                          r.push_back(0x05);
                                          r.push_back(0x00);
                                          return r;
                                        }())},
      {"damaged register", file({{"CN=A", {good_record}}}, Bytes(reg.begin(), reg.end() - 2))},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CaStore store;
    LoadedTslRegister tsls;
    EXPECT_FALSE(quillon::castore::DecodeCaList(Input(c.bytes), &store, &tsls));
  }

  // Damage inside a certificate's content that keeps its outline is found
  // only when the certificate is first used: the record then has none.
  Bytes bad_time = Tlv(ca);
  const std::string not_before = "100101083000Z";  // GoodCACert's notBefore
  auto at = std::search(bad_time.begin(), bad_time.end(), not_before.begin(), not_before.end());
  ASSERT_NE(at, bad_time.end());
  *(at + 2) = 'x';
  {
    CaStore store;
    LoadedTslRegister tsls;
    ASSERT_TRUE(quillon::castore::DecodeCaList(
        Input(file({{"CN=A", {Record({bad_time, IssuerOf(ca), SerialOf(ca), Int(3)})}}})), &store,
        &tsls));
    ASSERT_NE(store.record(0, 0)->certificate, nullptr);
    EXPECT_EQ(store.record(0, 0)->cert(), nullptr);
    EXPECT_EQ(store.findIssuer(0, ca, nullptr, nullptr), -1);
  }

  // Every truncation of a real file is refused, but the one that drops
  // exactly the register: that is a file of the table alone.
  Input table;
  quillon::der::Parser top{Input(valid)};
  ASSERT_TRUE(top.ReadRawTLV(&table));
  for (size_t n = 0; n < valid.size(); n += (n < 4096 ? 1 : 97)) {
    if (n == table.size()) continue;
    CaStore store;
    LoadedTslRegister tsls;
    ASSERT_FALSE(quillon::castore::DecodeCaList(Input(valid.data(), n), &store, &tsls)) << n;
  }
  // Flipped bytes may or may not be refused (a signature byte changes
  // nothing the file checks, and certificates are decoded only when used),
  // but never crash; what is read is consistent.
  std::mt19937 rng(20240611);
  for (int i = 0; i < 3000; ++i) {
    Bytes damaged = valid;
    damaged[rng() % damaged.size()] ^= static_cast<uint8_t>(1u << (rng() % 8));
    CaStore store;
    LoadedTslRegister tsls;
    if (quillon::castore::DecodeCaList(Input(damaged), &store, &tsls)) {
      ASSERT_TRUE(store.indexesConsistent());
      Describe(store);  // decodes every certificate, damaged or not
    }
  }
}

// ---------------------------------------------------------------------------
// Through the exported functions, in child processes.

// A child process's library set-up; the context is released when the
// child's check returns, so leak checking sees a clean exit.
struct ChildSetup {
  ChildSetup(void* c, std::string l) : ctx(c), log(std::move(l)) {}
  ChildSetup(const ChildSetup&) = delete;
  ChildSetup& operator=(const ChildSetup&) = delete;
  ~ChildSetup() { cache_releaseContext(ctx); }
  void* ctx;
  std::string log;
};

// cache_init in |dir| with an English log at level 7, and a context.
ChildSetup Init(const qt::TempDir& dir) {
  std::string ident = "calist";
  const std::string log = dir.File("log");
  cache_init(C(dir.path()), C(ident), C(log));
  cache_setLang(1);
  cache_enableLog(7);
  return ChildSetup(cache_getContext(), log);
}

bool Contains(const std::string& text, const std::string& piece) {
  if (text.find(piece) != std::string::npos) return true;
  std::fprintf(stderr, "missing: %s\n", piece.c_str());
  return false;
}

TEST(CaList, SavedListReadsBackTheSameInAFreshProcess) {
  qt::TempDir dir;
  const std::string path = dir.File("caCertsList-3.5");
  const std::string expected = Describe(SampleStore());
  const std::string expected_reg = Describe(SampleRegister());

  // One process fills the table through the library and saves it...
  IN_CHILD(([&] {
    const ChildSetup s = Init(dir);
    auto* ctx = static_cast<quillon::api::CacheContext*>(s.ctx);
    const auto& files = RealCertificates();
    for (size_t i = 0; i < files.size(); ++i) {
      const TSLMetadata m = MetadataFor(files[i]);
      const int source = SourceFor(i, files[i]);
      if (!quillon::api::AddCaCertificate(ctx, FromFile(files[i]), source,
                                          source == 1 ? &m : nullptr)) {
        return false;
      }
    }
    Library::Get().loaded_tsls() = SampleRegister();
    if (cache_saveCACertList(s.ctx) != 1) return false;
    struct stat st {};
    const std::string log = ReadText(s.log);
    return stat(path.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600 &&
           Contains(log, "]: Starting CA certificates list copying to disk\n") &&
           Contains(log, "]: CA certificates list copy on disk finished\n");
  }()));

  // ...and another, starting afresh, reads the same back.
  IN_CHILD(([&] {
    const ChildSetup s = Init(dir);
    unsigned long error = 0;
    if (cache_loadCACertList(s.ctx, &error) != 1 || error != 0) return false;
    Library& lib = Library::Get();
    const std::string log = ReadText(s.log);
    return Describe(lib.ca_store()) == expected && Describe(lib.loaded_tsls()) == expected_reg &&
           lib.ca_store().indexesConsistent() &&
           Contains(log, "]: Loading CA certificates list\n") &&
           Contains(log, "]: CA certificates list loading completed\n") &&
           Contains(log, "]: CA certificates included into certificate list: " +
                             std::to_string(lib.ca_store().count()) + "\n");
  }()));
}

TEST(CaList, FailedLoadsAndEmptySavesLeaveTableAndFileAlone) {
  qt::TempDir dir;
  const std::string path = dir.File("caCertsList-3.5");
  const Bytes valid = Encode(SampleStore(), SampleRegister());
  const std::string expected = Describe(SampleStore());
  const std::vector<Bytes> damaged = {
      Bytes(valid.begin(), valid.begin() + static_cast<long>(valid.size() / 2)),
      Bytes{0x30, 0x84, 0x7F, 0xFF, 0xFF, 0xFF},
      Bytes(valid.size(), 0x30),
  };
  IN_CHILD(([&] {
    const ChildSetup s = Init(dir);
    unsigned long error = 0;
    // No file yet.
    if (cache_loadCACertList(s.ctx, &error) != 0 || error != 5150) return false;
    if (cache_loadCACertList(s.ctx) != 0) return false;
    // A table in memory, then damaged files: each refused, table and file kept.
    qt::WriteFile(path, valid);
    if (cache_loadCACertList(s.ctx) != 1) return false;
    for (const Bytes& bad : damaged) {
      qt::WriteFile(path, bad);
      error = 0;
      if (cache_loadCACertList(s.ctx, &error) != 0 || error != 5150) return false;
      if (Describe(Library::Get().ca_store()) != expected || qt::ReadFile(path) != bad)
        return false;
    }
    // An empty table with no trusted list writes nothing: the old file stays.
    qt::WriteFile(path, valid);
    cache_clean(s.ctx);
    Library::Get().loaded_tsls().clear();
    if (cache_saveCACertList(s.ctx) != 0 || qt::ReadFile(path) != valid) return false;
    // A failed PEM import empties the table and so saves nothing either.
    if (cache_importCACertsListPEM(s.ctx, C(dir.File("missing.pem"))) != 0 ||
        qt::ReadFile(path) != valid) {
      return false;
    }
    const std::string log = ReadText(s.log);
    return Contains(log, "]: Failed to access the list of CA certificates\n");
  }()));
}

// The PEM armour of |der|.
std::string Pem(const Bytes& der) { return Buffer(der.data(), der.size()).toPEM("CERTIFICATE"); }

// |der| with its outer length in a longer form than DER allows: valid BER.
Bytes LongFormLength(const Bytes& der) {
  const size_t header = der[1] < 0x80 ? 2 : 2 + (der[1] & 0x7F);
  const size_t n = der.size() - header;
  Bytes ber = {0x30,
               0x84,
               static_cast<uint8_t>(n >> 24),
               static_cast<uint8_t>(n >> 16),
               static_cast<uint8_t>(n >> 8),
               static_cast<uint8_t>(n)};
  ber.insert(ber.end(), der.begin() + static_cast<long>(header), der.end());
  return ber;
}

TEST(CaList, PemListsInitialiseOrAddAndStopAtTheFirstBadBlock) {
  qt::TempDir dir;
  std::string good_list = "# PKITS and real CAs\n";
  for (const char* f :
       {"nist-pkits/certs/TrustAnchorRootCertificate.crt", "nist-pkits/certs/GoodCACert.crt",
        "real-crls/dss-eu-ca-crls/Belgium-Root-CA4.from-BE-TL-seq66.cer"}) {
    good_list += Pem(qt::ReadFile(qt::TestDataPath(f)));
  }
  const std::string bad_block =
      "-----BEGIN CERTIFICATE-----\r\nMIIBIjANBgkqhkiG9w0BAQEFAAOC\r\n-----END "
      "CERTIFICATE-----\r\n";
  const Bytes ber =
      LongFormLength(qt::ReadFile(qt::TestDataPath("nist-pkits/certs/GoodsubCACert.crt")));
  qt::WriteFile(dir.File("good.pem"), good_list);
  qt::WriteFile(dir.File("two-then-bad.pem"),
                Pem(qt::ReadFile(qt::TestDataPath("nist-pkits/certs/GoodsubCACert.crt"))) +
                    Pem(qt::ReadFile(qt::TestDataPath("nist-pkits/certs/NoCRLCACert.crt"))) +
                    bad_block + good_list);
  qt::WriteFile(dir.File("ber.pem"), Pem(ber));

  IN_CHILD(([&] {
    const ChildSetup s = Init(dir);
    void* ctx = s.ctx;
    bool ok = cache_initCACertListPEM(ctx, C(dir.File("good.pem"))) == 1 &&
              cache_getCACertsNum(ctx) == 3 && cache_getCACertSource(ctx, 2, 0) == 2;
    // Unreadable: 0, and the table untouched.
    ok = ok && cache_initCACertListPEM(ctx, C(dir.File("missing.pem"))) == 0 &&
         cache_getCACertsNum(ctx) == 3;
    // Addition keeps what is there and uses source 3; a BER certificate is
    // taken with a warning.
    ok = ok && cache_addCACertListPEM(ctx, C(dir.File("ber.pem"))) == 1 &&
         cache_getCACertsNum(ctx) == 4 && cache_getCACertSource(ctx, 3, 0) == 3;
    // Two good blocks, then a bad one: those two stay, the rest is not read.
    ok = ok && cache_initCACertListPEM(ctx, C(dir.File("two-then-bad.pem"))) == 0 &&
         cache_getCACertsNum(ctx) == 2;
    ok = ok && cache_addCACertListPEM(ctx, C(dir.File("two-then-bad.pem"))) == 0 &&
         cache_getCACertsNum(ctx) == 2 && cache_getCACertSource(ctx, 0, 0) == 3;
    ok = ok && cache_addCACertListPEM(ctx, C(dir.File("missing.pem"))) == 0 &&
         cache_getErrCode(ctx) == 0xFFFFFFFFul;  // logged, not recorded
    // Import: clean, initialise, save.
    ok = ok && cache_importCACertsListPEM(ctx, C(dir.File("good.pem"))) == 1;
    cache_clean(ctx);
    ok = ok && cache_loadCACertList(ctx) == 1 && cache_getCACertsNum(ctx) == 3 &&
         cache_getCACertSource(ctx, 1, 0) == 2;
    const std::string log = ReadText(s.log);
    return ok && Contains(log, "]: CA certificates list initialization\n") &&
           Contains(log, "]: CA certificates list initialization completed\n") &&
           Contains(log, "]: CA certificates included into certificate list: 3\n") &&
           Contains(log, "]: Addition to the list of CA certificates in progress\n") &&
           Contains(log, "]: CA certificates list addition completed\n") &&
           Contains(log, "]: Certificare encoding not conform to the BER format\n") &&
           Contains(log, "]: Failed to add to the list of CA certificates\n") &&
           Contains(log, "]: Failed to initialize the list of CA certificates\n");
  }()));
}

}  // namespace
