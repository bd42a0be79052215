// Signature check of a CRL-sized signed part: the crypto device's verify()
// against its floor in raw OpenSSL, the SHA-256 of the same bytes plus one
// signature check on the precomputed digest (EVP_PKEY_verify).
//
// What the device adds over the floor is the reading of the AlgorithmIdentifier
// and SubjectPublicKeyInfo, building the key and one digest fetch; on 40 MB
// that must disappear in the hashing. Target: ratio <= 1.15.
//
// The "Side by side" benchmarks time both in the same iterations and report
// ours_ms, floor_ms and ratio; the other two time each alone.

#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/x509.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "pki/crypto_device.h"

namespace {

using Bytes = std::vector<uint8_t>;
using quillon::der::Input;
using quillon::pki::CryptoDevice;

constexpr size_t kSignedSize = 40u << 20;  // a CRL of some 800 000 entries

// AlgorithmIdentifier TLVs: sha256WithRSAEncryption (NULL parameters) and
// ecdsa-with-SHA256.
const Bytes kSha256WithRsa = {0x30, 0x0d, 0x06, 0x09, 0x2a, 0x86, 0x48, 0x86,
                              0xf7, 0x0d, 0x01, 0x01, 0x0b, 0x05, 0x00};
const Bytes kEcdsaWithSha256 = {0x30, 0x0a, 0x06, 0x08, 0x2a, 0x86,
                                0x48, 0xce, 0x3d, 0x04, 0x03, 0x02};

struct Signer {
  EVP_PKEY* key = nullptr;
  Bytes algorithm, spki, signature;
};

struct Fixture {
  Bytes tbs;
  Signer rsa, ec;
  CryptoDevice device;

  Fixture() {
    tbs.resize(kSignedSize);
    if (RAND_bytes(tbs.data(), static_cast<int>(tbs.size())) != 1) std::abort();
    rsa = MakeSigner(EVP_PKEY_Q_keygen(nullptr, nullptr, "RSA", size_t{2048}), kSha256WithRsa);
    ec = MakeSigner(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "prime256v1"), kEcdsaWithSha256);
    if (!device.open(nullptr, nullptr, 0)) std::abort();
    // The benchmark means nothing unless the signatures verify.
    if (!Ours(rsa) || !Ours(ec) || !Floor(rsa) || !Floor(ec)) std::abort();
  }

  Signer MakeSigner(EVP_PKEY* key, const Bytes& algorithm) {
    Signer s;
    s.key = key;
    s.algorithm = algorithm;
    unsigned char* der = nullptr;
    const int n = i2d_PUBKEY(key, &der);
    if (n <= 0) std::abort();
    s.spki.assign(der, der + n);
    OPENSSL_free(der);
    EVP_MD_CTX* ctx = EVP_MD_CTX_new();
    size_t length = static_cast<size_t>(EVP_PKEY_get_size(key));
    s.signature.resize(length);
    if (EVP_DigestSignInit(ctx, nullptr, EVP_sha256(), nullptr, key) != 1 ||
        EVP_DigestSign(ctx, s.signature.data(), &length, tbs.data(), tbs.size()) != 1) {
      std::abort();
    }
    s.signature.resize(length);
    EVP_MD_CTX_free(ctx);
    return s;
  }

  bool Ours(const Signer& s) const {
    return device.verify(Input(s.algorithm), Input(s.spki), Input(tbs), Input(s.signature));
  }

  // The floor: hash, then one raw check of the signature on that digest with a
  // key that is already built.
  bool Floor(const Signer& s) const {
    unsigned char digest[32];
    unsigned int digest_length = 0;
    if (EVP_Digest(tbs.data(), tbs.size(), digest, &digest_length, EVP_sha256(), nullptr) != 1) {
      return false;
    }
    EVP_PKEY_CTX* ctx = EVP_PKEY_CTX_new(s.key, nullptr);
    const bool ok = ctx && EVP_PKEY_verify_init(ctx) == 1 &&
                    EVP_PKEY_CTX_set_signature_md(ctx, EVP_sha256()) == 1 &&
                    EVP_PKEY_verify(ctx, s.signature.data(), s.signature.size(), digest,
                                    digest_length) == 1;
    EVP_PKEY_CTX_free(ctx);
    return ok;
  }
};

Fixture& Get() {
  static Fixture* fixture = new Fixture;  // kept for the whole run
  return *fixture;
}

const Signer& Pick(Fixture& f, int64_t which) { return which == 0 ? f.rsa : f.ec; }
const char* Label(int64_t which) { return which == 0 ? "RSA-2048/SHA-256" : "P-256/SHA-256"; }

void BM_DeviceVerify(benchmark::State& state) {
  Fixture& f = Get();
  const Signer& s = Pick(f, state.range(0));
  for (auto _ : state) {
    if (!f.Ours(s)) state.SkipWithError("signature did not verify");
  }
  state.SetLabel(Label(state.range(0)));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSignedSize);
}

void BM_OpenSslFloor(benchmark::State& state) {
  Fixture& f = Get();
  const Signer& s = Pick(f, state.range(0));
  for (auto _ : state) {
    if (!f.Floor(s)) state.SkipWithError("signature did not verify");
  }
  state.SetLabel(Label(state.range(0)));
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSignedSize);
}

void BM_SideBySide(benchmark::State& state) {
  using Clock = std::chrono::steady_clock;
  Fixture& f = Get();
  const Signer& s = Pick(f, state.range(0));
  std::chrono::duration<double, std::milli> ours{0}, floor{0};
  bool first = true;
  for (auto _ : state) {
    // Alternate the order so that neither always runs on a warmed cache.
    for (int k = 0; k < 2; ++k) {
      const bool run_ours = (k == 0) == first;
      const auto t0 = Clock::now();
      const bool ok = run_ours ? f.Ours(s) : f.Floor(s);
      const auto t1 = Clock::now();
      (run_ours ? ours : floor) += t1 - t0;
      if (!ok) state.SkipWithError("signature did not verify");
    }
    first = !first;
  }
  const double n = static_cast<double>(state.iterations());
  state.counters["ours_ms"] = ours.count() / n;
  state.counters["floor_ms"] = floor.count() / n;
  state.counters["ratio"] = floor.count() > 0 ? ours.count() / floor.count() : 0;
  state.SetLabel(Label(state.range(0)));
}

BENCHMARK(BM_DeviceVerify)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_OpenSslFloor)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SideBySide)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

BENCHMARK_MAIN();
