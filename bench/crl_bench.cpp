// CertificateList against OpenSSL's X509_CRL on CRLs of 1 000, 100 000 and
// 1 000 000 entries (a third with reasonCode, a few with invalidityDate),
// generated once per size by the test-PKI factory.
//
//  FirstAnswer_*  decode, make ready for look-ups, answer one serial:
//                 decode (which builds the serial index) + findSerial against
//                 d2i_X509_CRL and the first X509_CRL_get0_by_serial (which
//                 sorts the entries).
//  Lookup*_*      one look-up on a ready object, of a listed or an unlisted
//                 serial: findSerial (from the serial text) against
//                 X509_CRL_get0_by_serial on a sorted CRL, given a ready
//                 ASN1_INTEGER (_OpenSSL) or the same text, converted as a
//                 caller holding serial texts must (_OpenSSLText). Unlisted
//                 serials are listed ones with the last octet changed, so
//                 that they fall between listed ones in sorted order.
//  Copy_Quillon   a deep copy of a ready object.
//  Memory_Quillon memoryUsage() of a decoded object, against the DER size.
//  Summary        the ratios of the runs above, as counters:
//                 first_answer_x = OpenSSL time / ours, lookup_*_x likewise
//                 (lookup_*_text_x against _OpenSSLText), memory_ratio =
//                 memoryUsage / DER size. Times are thread CPU times, the
//                 least of the repetitions, so that other load on the
//                 machine weighs little.
// Targets at 1 000 000 entries: first_answer_x >= 40, lookup_*_x >= 20,
// memory_ratio <= 1.5.
//
// Run a Release build: build-rel/bench/crl_bench

#include <benchmark/benchmark.h>
#include <openssl/asn1.h>
#include <openssl/bn.h>
#include <openssl/x509.h>
#include <time.h>

#include <algorithm>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "quillon32/certificate_list.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;

// Thread CPU time in seconds.
double CpuNow() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

constexpr uint64_t kSeed = 2024;
constexpr size_t kProbes = 4096;  // distinct serials cycled through by the look-up runs

struct Fixture {
  std::vector<uint8_t> der;
  std::vector<std::string> present_text, absent_text;
  std::vector<ASN1_INTEGER*> present_int, absent_int;
};

ASN1_INTEGER* ToAsn1(const qt::Serial& s) {
  // Through DER, so OpenSSL reads the sign as it would from a CRL.
  std::vector<uint8_t> der = {0x02, static_cast<uint8_t>(s.bytes.size())};
  der.insert(der.end(), s.bytes.begin(), s.bytes.end());
  const unsigned char* p = der.data();
  return d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(der.size()));
}

std::string ToText(const qt::Serial& s) {
  BigInteger v;
  v.fromDerContent(s.bytes.data(), s.bytes.size());
  return v.toHex();
}

const Fixture& Get(size_t entries) {
  static std::map<size_t, Fixture> made;
  auto it = made.find(entries);
  if (it != made.end()) return it->second;
  Fixture f;
  f.der = qt::MakeLargeCrl(qt::PooledKey(qt::KeyType::kEcP256, 0), qt::TestName("Bench CA"),
                           entries, kSeed);
  for (size_t k = 0; k < kProbes; ++k) {
    // Spread over the whole list: early entries would favour a linear scan.
    const qt::Serial present = qt::LargeCrlSerial((k * 7919 + entries / 2) % entries, kSeed);
    // Listed serials differ from one another in their last 8 octets, which
    // come from a 64-bit mix: changing the last octet gives, but for odds
    // of n / 2^64, a serial that is not listed.
    qt::Serial absent = qt::LargeCrlSerial((k * 104729 + 1) % entries, kSeed);
    absent.bytes.back() ^= 0x5A;
    f.present_text.push_back(ToText(present));
    f.absent_text.push_back(ToText(absent));
    f.present_int.push_back(ToAsn1(present));
    f.absent_int.push_back(ToAsn1(absent));
  }
  return made.emplace(entries, std::move(f)).first->second;
}

// CPU seconds per iteration of each run, by name and size, for Summary: the
// least over repetitions.
std::map<std::pair<std::string, size_t>, double>& Results() {
  static std::map<std::pair<std::string, size_t>, double> r;
  return r;
}

void Record(const char* name, benchmark::State& state, double cpu_seconds) {
  if (state.iterations() == 0 || state.error_occurred()) return;
  const double per = cpu_seconds / static_cast<double>(state.iterations());
  auto [it, added] = Results().try_emplace({name, static_cast<size_t>(state.range(0))}, per);
  if (!added) it->second = std::min(it->second, per);
}

X509_CRL* ParseOpenSsl(const std::vector<uint8_t>& der) {
  const unsigned char* p = der.data();
  return d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size()));
}

// ---------------------------------------------------------------------------

void FirstAnswer_Quillon(benchmark::State& state) {
  const Fixture& f = Get(static_cast<size_t>(state.range(0)));
  double total = 0;
  size_t k = 0;
  for (auto _ : state) {
    const double start = CpuNow();
    auto crl = std::make_unique<CertificateList>();
    if (!crl->decode(f.der.data(), f.der.size())) {
      state.SkipWithError("decode failed");
      break;
    }
    const long at = crl->findSerial(f.present_text[k++ % kProbes].c_str());
    benchmark::DoNotOptimize(at);
    total += CpuNow() - start;
    if (at < 0) {
      state.SkipWithError("serial not found");
      break;
    }
    state.PauseTiming();
    crl.reset();
    state.ResumeTiming();
  }
  Record("first_quillon", state, total);
}

void FirstAnswer_OpenSSL(benchmark::State& state) {
  const Fixture& f = Get(static_cast<size_t>(state.range(0)));
  double total = 0;
  size_t k = 0;
  for (auto _ : state) {
    const double start = CpuNow();
    X509_CRL* crl = ParseOpenSsl(f.der);
    X509_REVOKED* revoked = nullptr;
    const int found =
        crl ? X509_CRL_get0_by_serial(crl, &revoked, f.present_int[k++ % kProbes]) : 0;
    benchmark::DoNotOptimize(revoked);
    total += CpuNow() - start;
    if (found < 1) {  // 2 for removeFromCRL
      state.SkipWithError("serial not found");
      X509_CRL_free(crl);
      break;
    }
    state.PauseTiming();
    X509_CRL_free(crl);
    state.ResumeTiming();
  }
  Record("first_openssl", state, total);
}

void Lookup(benchmark::State& state, bool present, const char* name) {
  const Fixture& f = Get(static_cast<size_t>(state.range(0)));
  CertificateList crl;
  if (!crl.decode(f.der.data(), f.der.size())) state.SkipWithError("decode failed");
  const auto& texts = present ? f.present_text : f.absent_text;
  size_t k = 0;
  long hits = 0;
  const double start = CpuNow();
  for (auto _ : state) {
    const long at = crl.findSerial(texts[k++ % kProbes].c_str());
    benchmark::DoNotOptimize(at);
    hits += at >= 0;
  }
  Record(name, state, CpuNow() - start);
  if (hits != (present ? static_cast<long>(state.iterations()) : 0))
    state.SkipWithError("wrong answer");
}

// With |from_text|, each look-up starts from the serial text, as findSerial does.
void LookupOpenSsl(benchmark::State& state, bool present, bool from_text, const char* name) {
  const Fixture& f = Get(static_cast<size_t>(state.range(0)));
  X509_CRL* crl = ParseOpenSsl(f.der);
  X509_REVOKED* revoked = nullptr;
  X509_CRL_get0_by_serial(crl, &revoked, f.present_int[0]);  // sorts once
  const auto& ints = present ? f.present_int : f.absent_int;
  const auto& texts = present ? f.present_text : f.absent_text;
  size_t k = 0;
  long hits = 0;
  const double start = CpuNow();
  for (auto _ : state) {
    int found = 0;
    if (from_text) {
      BIGNUM* bn = nullptr;
      BN_hex2bn(&bn, texts[k++ % kProbes].c_str());
      ASN1_INTEGER* serial = BN_to_ASN1_INTEGER(bn, nullptr);
      found = X509_CRL_get0_by_serial(crl, &revoked, serial);
      ASN1_INTEGER_free(serial);
      BN_free(bn);
    } else {
      found = X509_CRL_get0_by_serial(crl, &revoked, ints[k++ % kProbes]);
    }
    benchmark::DoNotOptimize(revoked);
    hits += found >= 1;
  }
  Record(name, state, CpuNow() - start);
  if (hits != (present ? static_cast<long>(state.iterations()) : 0))
    state.SkipWithError("wrong answer");
  X509_CRL_free(crl);
}

void LookupPresent_Quillon(benchmark::State& s) { Lookup(s, true, "present_quillon"); }
void LookupAbsent_Quillon(benchmark::State& s) { Lookup(s, false, "absent_quillon"); }
void LookupPresent_OpenSSL(benchmark::State& s) {
  LookupOpenSsl(s, true, false, "present_openssl");
}
void LookupAbsent_OpenSSL(benchmark::State& s) { LookupOpenSsl(s, false, false, "absent_openssl"); }
void LookupPresent_OpenSSLText(benchmark::State& s) {
  LookupOpenSsl(s, true, true, "present_text");
}
void LookupAbsent_OpenSSLText(benchmark::State& s) { LookupOpenSsl(s, false, true, "absent_text"); }

void Copy_Quillon(benchmark::State& state) {
  const Fixture& f = Get(static_cast<size_t>(state.range(0)));
  CertificateList crl;
  if (!crl.decode(f.der.data(), f.der.size())) state.SkipWithError("decode failed");
  for (auto _ : state) {
    CertificateList copy(crl);
    benchmark::DoNotOptimize(copy.entryCount());
  }
}

void Memory_Quillon(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  const Fixture& f = Get(n);
  size_t used = 0;
  for (auto _ : state) {
    CertificateList crl;
    if (!crl.decode(f.der.data(), f.der.size())) state.SkipWithError("decode failed");
    used = crl.memoryUsage();
  }
  state.counters["der_bytes_per_entry"] =
      static_cast<double>(f.der.size()) / static_cast<double>(n);
  state.counters["bytes_per_entry"] = static_cast<double>(used) / static_cast<double>(n);
  state.counters["memory_ratio"] = static_cast<double>(used) / static_cast<double>(f.der.size());
  Results()[{"memory_ratio", n}] = static_cast<double>(used) / static_cast<double>(f.der.size());
}

void Summary(benchmark::State& state) {
  const size_t n = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
  }
  const auto ratio = [&](const char* theirs, const char* ours) {
    const auto& r = Results();
    const auto a = r.find({theirs, n}), b = r.find({ours, n});
    return a != r.end() && b != r.end() && b->second > 0 ? a->second / b->second : 0.0;
  };
  state.counters["first_answer_x"] = ratio("first_openssl", "first_quillon");
  state.counters["lookup_present_x"] = ratio("present_openssl", "present_quillon");
  state.counters["lookup_absent_x"] = ratio("absent_openssl", "absent_quillon");
  state.counters["lookup_present_text_x"] = ratio("present_text", "present_quillon");
  state.counters["lookup_absent_text_x"] = ratio("absent_text", "absent_quillon");
  const auto m = Results().find({"memory_ratio", n});
  state.counters["memory_ratio"] = m != Results().end() ? m->second : 0.0;
}

#define SIZES Arg(1000)->Arg(100000)->Arg(1000000)

BENCHMARK(FirstAnswer_Quillon)->SIZES->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(FirstAnswer_OpenSSL)->SIZES->Unit(benchmark::kMillisecond)->MinTime(1.0);
BENCHMARK(LookupPresent_Quillon)->SIZES;
BENCHMARK(LookupPresent_OpenSSL)->SIZES;
BENCHMARK(LookupPresent_OpenSSLText)->SIZES;
BENCHMARK(LookupAbsent_Quillon)->SIZES;
BENCHMARK(LookupAbsent_OpenSSL)->SIZES;
BENCHMARK(LookupAbsent_OpenSSLText)->SIZES;
BENCHMARK(Copy_Quillon)->SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(Memory_Quillon)->SIZES->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(Summary)->SIZES->Iterations(1)->Repetitions(1);

}  // namespace

BENCHMARK_MAIN();
