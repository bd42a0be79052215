// CertificateList against OpenSSL's X509_CRL on CRLs of 1 000, 100 000 and
// 1 000 000 entries (a third with reasonCode, a few with invalidityDate),
// generated once per size by the test-PKI factory. Each comparison runs both
// libraries in turns within one loop (see below); times are thread CPU times.
//
//  FirstAnswer    decode, make ready for look-ups, answer one serial:
//                 decode (which builds the serial index) + findSerial against
//                 d2i_X509_CRL and the first X509_CRL_get0_by_serial (which
//                 sorts the entries). Ours both copying the caller's DER
//                 (quillon_ms) and taking it over (quillon_take_ms).
//  Lookup*        look-ups on ready objects, of listed or unlisted serials:
//                 findSerial (from the serial text) against
//                 X509_CRL_get0_by_serial on a sorted CRL, given a ready
//                 ASN1_INTEGER (openssl_ns) or the same text, converted as a
//                 caller holding serial texts must (openssl_text_ns).
//                 Unlisted serials are listed ones with the last octet
//                 changed, so that they fall between listed ones in sorted
//                 order.
//  Copy_Quillon   a deep copy of a ready object.
//  Memory_Quillon memoryUsage() of a decoded object, against the DER size.
//  Summary        the ratios, as counters: first_answer_x = OpenSSL time /
//                 ours (first_answer_take_x taking the DER over),
//                 lookup_*_x likewise (lookup_*_text_x against OpenSSL from
//                 the text), memory_ratio = memoryUsage / DER size.
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

// Ratios by name and size, for Summary.
std::map<std::pair<std::string, size_t>, double>& Results() {
  static std::map<std::pair<std::string, size_t>, double> r;
  return r;
}

X509_CRL* ParseOpenSsl(const std::vector<uint8_t>& der) {
  const unsigned char* p = der.data();
  return d2i_X509_CRL(nullptr, &p, static_cast<long>(der.size()));
}

// ---------------------------------------------------------------------------
// The machine this runs on may slow down or speed up by half from one second
// to the next (other tenants). So each comparison runs both sides in turns,
// within one loop, and the ratio is taken over the same stretch of time.

// One decode, made ready to answer, answering |serial_text|: the CPU seconds
// it took, or a negative value on failure. With |take| the object is given a
// copy of the DER made beforehand, off the clock, as a caller hands over a
// body it has just downloaded or read.
double QuillonFirstAnswer(const Fixture& f, const std::string& serial_text, bool take) {
  std::vector<uint8_t> body;
  if (take) body = f.der;
  const double start = CpuNow();
  auto crl = std::make_unique<CertificateList>();
  const bool decoded =
      take ? crl->decode(std::move(body)) : crl->decode(f.der.data(), f.der.size());
  const long at = decoded ? crl->findSerial(serial_text.c_str()) : -1;
  benchmark::DoNotOptimize(at);
  const double spent = CpuNow() - start;
  return at >= 0 ? spent : -1;
}

double OpenSslFirstAnswer(const Fixture& f, ASN1_INTEGER* serial) {
  const double start = CpuNow();
  const unsigned char* p = f.der.data();
  X509_CRL* crl = d2i_X509_CRL(nullptr, &p, static_cast<long>(f.der.size()));
  X509_REVOKED* revoked = nullptr;
  const int found = crl ? X509_CRL_get0_by_serial(crl, &revoked, serial) : 0;
  benchmark::DoNotOptimize(revoked);
  const double spent = CpuNow() - start;
  X509_CRL_free(crl);
  return found >= 1 ? spent : -1;  // 2 for removeFromCRL
}

// Each iteration: OpenSSL once, then ours a few times copying the DER and a
// few times taking it, each counted as the mean of its turns. The time shown
// per iteration is the sum of all of them.
void FirstAnswer(benchmark::State& state) {
  const Fixture& f = Get(static_cast<size_t>(state.range(0)));
  constexpr int kTurns = 3;
  double openssl = 0, copying = 0, taking = 0;
  size_t k = 0;
  for (auto _ : state) {
    const double theirs = OpenSslFirstAnswer(f, f.present_int[k % kProbes]);
    // Untimed, so that ours starts as it would after a decode of its own
    // rather than after OpenSSL's.
    bool failed = QuillonFirstAnswer(f, f.present_text[k % kProbes], false) < 0;
    for (int t = 0; t < kTurns; ++t) {
      const double copy = QuillonFirstAnswer(f, f.present_text[k % kProbes], false);
      const double take = QuillonFirstAnswer(f, f.present_text[k % kProbes], true);
      failed = failed || copy < 0 || take < 0;
      copying += copy / kTurns;
      taking += take / kTurns;
    }
    ++k;
    if (failed) {
      state.SkipWithError("decode failed or serial not found");
      return;
    }
    openssl += theirs;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["openssl_ms"] = openssl / n * 1e3;
  state.counters["quillon_ms"] = copying / n * 1e3;
  state.counters["quillon_take_ms"] = taking / n * 1e3;
  Results()[{"first_answer_x", static_cast<size_t>(state.range(0))}] = openssl / copying;
  Results()[{"first_answer_take_x", static_cast<size_t>(state.range(0))}] = openssl / taking;
}

// Look-ups on ready objects, in blocks of kProbes serials, one block of each
// kind in turn: findSerial (from the serial text), X509_CRL_get0_by_serial on
// a sorted CRL given a ready ASN1_INTEGER, and the same from the text,
// converted as a caller holding serial texts must.
void Lookup(benchmark::State& state, bool present) {
  const size_t n = static_cast<size_t>(state.range(0));
  const Fixture& f = Get(n);
  CertificateList ours;
  X509_CRL* theirs = ParseOpenSsl(f.der);
  X509_REVOKED* revoked = nullptr;
  if (!ours.decode(f.der.data(), f.der.size()) || !theirs) {
    state.SkipWithError("decode failed");
    X509_CRL_free(theirs);
    return;
  }
  X509_CRL_get0_by_serial(theirs, &revoked, f.present_int[0]);  // sorts once
  const auto& texts = present ? f.present_text : f.absent_text;
  const auto& ints = present ? f.present_int : f.absent_int;
  // One pass of a kind over the probes: the number found.
  const auto ours_pass = [&] {
    long found = 0;
    for (size_t k = 0; k < kProbes; ++k) {
      const long at = ours.findSerial(texts[k].c_str());
      benchmark::DoNotOptimize(at);
      found += at >= 0;
    }
    return found;
  };
  const auto openssl_pass = [&] {
    long found = 0;
    for (size_t k = 0; k < kProbes; ++k) {
      found += X509_CRL_get0_by_serial(theirs, &revoked, ints[k]) >= 1;
      benchmark::DoNotOptimize(revoked);
    }
    return found;
  };
  const auto openssl_text_pass = [&] {
    long found = 0;
    for (size_t k = 0; k < kProbes; ++k) {
      BIGNUM* bn = nullptr;
      BN_hex2bn(&bn, texts[k].c_str());
      ASN1_INTEGER* serial = BN_to_ASN1_INTEGER(bn, nullptr);
      found += X509_CRL_get0_by_serial(theirs, &revoked, serial) >= 1;
      benchmark::DoNotOptimize(revoked);
      ASN1_INTEGER_free(serial);
      BN_free(bn);
    }
    return found;
  };
  // Each kind runs for a while in turn: an untimed pass over the serials,
  // then timed passes for at least kStint of CPU time, so that each library
  // finds its own data in cache, as when it runs alone (right after the
  // other's passes it would not), while both see the machine over the same
  // stretch of time. |looked| counts the timed look-ups.
  constexpr double kStint = 0.02;
  const auto timed = [&](const auto& pass, double* seconds, double* looked, long* hits) {
    pass();
    const double start = CpuNow();
    double spent = 0;
    do {
      *hits += pass();
      *looked += kProbes;
      spent = CpuNow() - start;
    } while (spent < kStint);
    *seconds += spent;
  };
  double seconds[3] = {0, 0, 0}, looked[3] = {0, 0, 0};
  long hits[3] = {0, 0, 0};
  for (auto _ : state) {
    timed(ours_pass, &seconds[0], &looked[0], &hits[0]);
    timed(openssl_pass, &seconds[1], &looked[1], &hits[1]);
    timed(openssl_text_pass, &seconds[2], &looked[2], &hits[2]);
  }
  X509_CRL_free(theirs);
  for (int kind = 0; kind < 3; ++kind) {
    if (hits[kind] != (present ? static_cast<long>(looked[kind]) : 0)) {
      state.SkipWithError("wrong answer");
      return;
    }
  }
  const double quillon = seconds[0] / looked[0], openssl = seconds[1] / looked[1],
               openssl_text = seconds[2] / looked[2];
  state.counters["quillon_ns"] = quillon * 1e9;
  state.counters["openssl_ns"] = openssl * 1e9;
  state.counters["openssl_text_ns"] = openssl_text * 1e9;
  const std::string kind = present ? "lookup_present" : "lookup_absent";
  Results()[{kind + "_x", n}] = openssl / quillon;
  Results()[{kind + "_text_x", n}] = openssl_text / quillon;
}

void LookupPresent(benchmark::State& s) { Lookup(s, true); }
void LookupAbsent(benchmark::State& s) { Lookup(s, false); }

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
  for (const char* name : {"first_answer_x", "first_answer_take_x", "lookup_present_x",
                           "lookup_absent_x", "lookup_present_text_x", "lookup_absent_text_x",
                           "memory_ratio"}) {
    const auto it = Results().find({name, n});
    state.counters[name] = it != Results().end() ? it->second : 0.0;
  }
}

#define SIZES Arg(1000)->Arg(100000)->Arg(1000000)

BENCHMARK(FirstAnswer)->SIZES->Unit(benchmark::kMillisecond)->MinTime(10.0);
BENCHMARK(LookupPresent)->SIZES->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(LookupAbsent)->SIZES->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(Copy_Quillon)->SIZES->Unit(benchmark::kMillisecond);
BENCHMARK(Memory_Quillon)->SIZES->Unit(benchmark::kMillisecond)->Iterations(1);
BENCHMARK(Summary)->SIZES->Iterations(1)->Repetitions(1);

}  // namespace

BENCHMARK_MAIN();
