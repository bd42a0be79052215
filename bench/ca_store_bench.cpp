// The CA table at its full size: 2048 entries (subjects) of 2 records each.
//
// Look-ups go through the exported functions as a caller makes them:
// cache_getCACerts (entry by subject name), cache_getCertIndex (record by
// issuer and serial) and cache_trustedCA (a DER certificate whose issuer is
// looked up). Targets: under 1 us each. The peer is OpenSSL's X509_STORE
// asked for the certificates of a subject. Beside them: the index alone
// (key text to entry), the floors set by the PKI objects (printing the
// caller's name; decoding the certificate cache_trustedCA is given), and a
// linear scan of the keys, which is what the index saves.
//
// Save and load write and read the whole CA list file (about 2 MB, with
// fsync on save). Target: under 50 ms each.
#include <benchmark/benchmark.h>
#include <openssl/x509_vfy.h>
#include <strings.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <vector>

#include "api/library.h"
#include "quillon32/quillon32.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using Bytes = std::vector<uint8_t>;

constexpr int kEntries = 2048;
constexpr int kRecordsPerEntry = 2;

struct Fixture {
  qt::TempDir dir;
  void* ctx = nullptr;
  std::vector<Bytes> ders;  // entry-major: entry e, record r at e * 2 + r
  std::vector<Certificate> certs;
  std::vector<Name> subjects;     // one per entry, parsed back from upper-case text
  std::vector<std::string> keys;  // the entries' key texts
  qt::X509StorePtr store{X509_STORE_new()};
  std::vector<qt::X509NamePtr> x509_subjects;

  Fixture() {
    std::string ident = "bench";
    cache_init(const_cast<char*>(dir.path().c_str()), ident.data(), nullptr);
    ctx = cache_getContext();
    for (int e = 0; e < kEntries; ++e) {
      const qt::NameSpec subject = qt::Dn({{"C", "IT"},
                                           {"O", "Quillon32 Bench PKI"},
                                           {"OU", "Issuing authorities"},
                                           {"CN", "Quillon Bench CA " + std::to_string(e)}});
      for (int r = 0; r < kRecordsPerEntry; ++r) {
        // A few keys serve all certificates: only names and serials differ.
        qt::CertSpec spec =
            qt::RootCaSpec(subject, qt::PooledKey(qt::KeyType::kEcP256, (e + r) % 4));
        spec.serial = qt::Serial::FromUnsigned(0x1000000000ull * (r + 1) + e);
        qt::X509Ptr x = qt::MakeCert(spec);
        X509_STORE_add_cert(store.get(), x.get());
        ders.push_back(qt::Der(x.get()));
        Certificate c;
        if (!c.decode(ders.back().data(), ders.back().size())) std::abort();
        if (!cache_addCACert(ctx, &c)) std::abort();
        certs.push_back(std::move(c));
        if (r == 0) x509_subjects.push_back(qt::MakeX509Name(subject));
      }
      keys.push_back(certs.back().subject().toString());
      // Callers' names need not match the stored case.
      std::string upper = keys.back();
      for (char& ch : upper) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
      Name n;
      if (!n.parse(upper.c_str())) std::abort();
      subjects.push_back(std::move(n));
    }
    if (cache_getCACertsNum(ctx) != kEntries) std::abort();
    if (!cache_saveCACertList(ctx)) std::abort();
  }
};

Fixture& F() {
  static Fixture* f = new Fixture;
  return *f;
}

void BM_FindEntryBySubject(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    const int e = cache_getCACerts(f.ctx, &f.subjects[i]);
    if (e != static_cast<int>(i)) state.SkipWithError("wrong entry");
    i = (i + 7) % kEntries;
  }
}
BENCHMARK(BM_FindEntryBySubject);

// The index alone, given the key text (the rest of a look-up is printing
// the caller's name).
void BM_FindEntryByKeyText(benchmark::State& state) {
  Fixture& f = F();
  const quillon::castore::CaStore& store = quillon::api::Library::Get().ca_store();
  std::vector<std::string> upper;
  for (const Name& n : f.subjects) upper.push_back(n.toString());
  size_t i = 0;
  for (auto _ : state) {
    if (store.findEntry(upper[i]) != static_cast<int>(i)) state.SkipWithError("wrong entry");
    i = (i + 7) % kEntries;
  }
}
BENCHMARK(BM_FindEntryByKeyText);

// Printing the caller's name, the floor of a look-up by name.
void BM_FindEntryBySubject_PrintFloor(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.subjects[i].toString());
    i = (i + 7) % kEntries;
  }
}
BENCHMARK(BM_FindEntryBySubject_PrintFloor);

// What the index saves: the keys compared one by one, as without it.
void BM_FindEntryBySubject_LinearScan(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    const std::string key = f.subjects[i].toString();
    int found = -1;
    for (int e = 0; e < kEntries; ++e) {
      if (strcasecmp(f.keys[static_cast<size_t>(e)].c_str(), key.c_str()) == 0) {
        found = e;
        break;
      }
    }
    benchmark::DoNotOptimize(found);
    i = (i + 7) % kEntries;
  }
}
BENCHMARK(BM_FindEntryBySubject_LinearScan);

// The peer: OpenSSL's store, the certificates of a subject.
void BM_FindBySubject_OpenSslStore(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    X509_STORE_CTX* sctx = X509_STORE_CTX_new();
    X509_STORE_CTX_init(sctx, f.store.get(), nullptr, nullptr);
    STACK_OF(X509)* certs = X509_STORE_CTX_get1_certs(sctx, f.x509_subjects[i].get());
    if (!certs || sk_X509_num(certs) != kRecordsPerEntry) state.SkipWithError("wrong count");
    sk_X509_pop_free(certs, X509_free);
    X509_STORE_CTX_free(sctx);
    i = (i + 7) % kEntries;
  }
}
BENCHMARK(BM_FindBySubject_OpenSslStore);

void BM_FindRecordByIssuerAndSerial(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    const Certificate& c = f.certs[i];
    const int r = cache_getCertIndex(f.ctx, static_cast<int>(i / kRecordsPerEntry),
                                     const_cast<Name*>(&c.issuer()), c.serialNumber());
    if (r != static_cast<int>(i % kRecordsPerEntry)) state.SkipWithError("wrong record");
    i = (i + 7) % f.certs.size();
  }
}
BENCHMARK(BM_FindRecordByIssuerAndSerial);

void BM_TrustedCA(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    Bytes& der = f.ders[i];
    if (cache_trustedCA(f.ctx, der.data(), der.size()) != 1) state.SkipWithError("not trusted");
    i = (i + 7) % f.ders.size();
  }
}
BENCHMARK(BM_TrustedCA);

// The floor of cache_trustedCA: the decode of the certificate it is given.
void BM_TrustedCA_DecodeFloor(benchmark::State& state) {
  Fixture& f = F();
  size_t i = 0;
  for (auto _ : state) {
    Certificate c;
    benchmark::DoNotOptimize(c.decode(f.ders[i].data(), f.ders[i].size()));
    i = (i + 7) % f.ders.size();
  }
}
BENCHMARK(BM_TrustedCA_DecodeFloor);

void BM_SaveCaList(benchmark::State& state) {
  Fixture& f = F();
  for (auto _ : state) {
    if (!cache_saveCACertList(f.ctx)) state.SkipWithError("save failed");
  }
}
BENCHMARK(BM_SaveCaList)->Unit(benchmark::kMillisecond);

void BM_LoadCaList(benchmark::State& state) {
  Fixture& f = F();
  for (auto _ : state) {
    if (!cache_loadCACertList(f.ctx)) state.SkipWithError("load failed");
  }
  if (cache_getCACertsNum(f.ctx) != kEntries) state.SkipWithError("wrong count after load");
}
BENCHMARK(BM_LoadCaList)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
