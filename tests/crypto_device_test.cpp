// The crypto device, judged by the Wycheproof vectors and by signatures
// OpenSSL makes here for what those lack. (Real certificates and CRLs are
// verified through it in verify_test.)
#include "pki/crypto_device.h"

#include <gtest/gtest.h>
#include <openssl/core_names.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "support/der_writer.h"
#include "support/pki_factory.h"

namespace quillon::pki {
namespace {

namespace qt = quillon::testing;
namespace tag = quillon::testing::der;
using Bytes = std::vector<uint8_t>;

constexpr const char* kSha1 = "1.3.14.3.2.26";
constexpr const char* kSha256 = "2.16.840.1.101.3.4.2.1";
constexpr const char* kRsaPss = "1.2.840.113549.1.1.10";
constexpr const char* kRsaSha256 = "1.2.840.113549.1.1.11";
constexpr const char* kEcdsaSha256 = "1.2.840.10045.4.3.2";
const Bytes kNull = {0x05, 0x00};
const Bytes kMessage = {'t', 'b', 's', ' ', 'b', 'y', 't', 'e', 's'};

der::Input In(const Bytes& b) { return der::Input(b); }

// AlgorithmIdentifier { oid, parameters as given }.
Bytes AlgId(const char* oid, const Bytes& params = {}) {
  qt::DerWriter w;
  w.Begin(tag::kSequence);
  w.Oid(oid);
  w.Raw(params);
  w.End();
  return w.Take();
}

// RSASSA-PSS parameters; fields equal to their defaults are left out.
Bytes PssParams(const char* hash, const char* mgf1_hash, int salt) {
  qt::DerWriter w;
  w.Begin(tag::kSequence);
  if (std::string(hash) != kSha1) {
    w.Begin(tag::CtxCons(0));
    w.Raw(AlgId(hash, kNull));
    w.End();
  }
  if (std::string(mgf1_hash) != kSha1) {
    w.Begin(tag::CtxCons(1));
    w.Raw(AlgId("1.2.840.113549.1.1.8", AlgId(mgf1_hash, kNull)));
    w.End();
  }
  if (salt != 20) {
    w.Begin(tag::CtxCons(2));
    w.Integer(salt);
    w.End();
  }
  w.End();
  return w.Take();
}

Bytes Spki(const Bytes& algorithm, const Bytes& key) {
  qt::DerWriter w;
  w.Begin(tag::kSequence);
  w.Raw(algorithm);
  w.BitString(key);
  w.End();
  return w.Take();
}

Bytes EcSpki(const char* curve_oid, const Bytes& point) {
  qt::DerWriter oid;
  oid.Oid(curve_oid);
  return Spki(AlgId("1.2.840.10045.2.1", oid.bytes()), point);
}

// The process's device, opened once, with a guard of its own.
const CryptoDevice& Device() {
  static Semaphore guard;
  static CryptoDevice device(&guard);
  static const bool opened = device.open(nullptr, nullptr, 0);
  EXPECT_TRUE(opened);
  return device;
}

using Pkey = qt::EvpPkeyPtr;
Pkey EcKey(const char* curve) { return Pkey(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve)); }
EVP_PKEY* RsaKey() { return qt::PooledKey(qt::KeyType::kRsa2048, 0).get(); }

// The SubjectPublicKeyInfo, or with |rsa_key_only| the DER RSAPublicKey.
Bytes PublicKey(EVP_PKEY* key, bool rsa_key_only = false) {
  unsigned char* der = nullptr;
  const int n = rsa_key_only ? i2d_PublicKey(key, &der) : i2d_PUBKEY(key, &der);
  Bytes out(der, der + std::max(n, 0));
  OPENSSL_free(der);
  return out;
}

// A signature over kMessage; PSS when |mgf1| is given.
Bytes Sign(EVP_PKEY* key, const char* md, const char* mgf1 = nullptr, int salt = 0) {
  qt::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  EVP_PKEY_CTX* pctx = nullptr;
  Bytes sig(static_cast<size_t>(EVP_PKEY_get_size(key)));
  size_t length = sig.size();
  bool ok = EVP_DigestSignInit_ex(ctx.get(), &pctx, md, nullptr, nullptr, key, nullptr) == 1;
  if (ok && mgf1) {
    ok = EVP_PKEY_CTX_set_rsa_padding(pctx, RSA_PKCS1_PSS_PADDING) == 1 &&
         EVP_PKEY_CTX_set_rsa_mgf1_md_name(pctx, mgf1, nullptr) == 1 &&
         EVP_PKEY_CTX_set_rsa_pss_saltlen(pctx, salt) == 1;
  }
  ok = ok && EVP_DigestSign(ctx.get(), sig.data(), &length, kMessage.data(), kMessage.size()) == 1;
  EXPECT_TRUE(ok) << md;
  sig.resize(ok ? length : 0);
  return sig;
}

bool Verifies(const Bytes& alg, const Bytes& spki, const Bytes& sig, const Bytes& msg = kMessage) {
  return Device().verify(In(alg), In(spki), In(msg), In(sig));
}

// Each digest identifier names the digest OpenSSL computes under that name;
// other identifiers, a signature algorithm's among them, give none.
TEST(CryptoDevice, DigestsByIdentifier) {
  const std::pair<const char*, const char*> kDigests[] = {
      {"1.2.840.113549.2.5", "MD5"},        {kSha1, "SHA1"},
      {"2.16.840.1.101.3.4.2.4", "SHA224"}, {kSha256, "SHA256"},
      {"2.16.840.1.101.3.4.2.2", "SHA384"}, {"2.16.840.1.101.3.4.2.3", "SHA512"},
      {"1.3.36.3.2.1", "RIPEMD160"}};
  for (const auto& [oid, name] : kDigests) {
    Bytes want(EVP_MAX_MD_SIZE), got;
    size_t length = 0;
    ASSERT_EQ(EVP_Q_digest(nullptr, name, nullptr, kMessage.data(), kMessage.size(), want.data(),
                           &length), 1) << name;
    want.resize(length);
    ASSERT_TRUE(Device().digest(der::Oid(oid).bytes(), In(kMessage), &got)) << oid;
    EXPECT_EQ(got, want) << oid;
  }
  for (const char* other : {"1.2.840.113549.2.4", "2.16.840.1.101.3.4.2.8", kRsaSha256}) {
    Bytes out = {1, 2, 3};
    EXPECT_FALSE(Device().digest(der::Oid(other).bytes(), In(kMessage), &out)) << other;
    EXPECT_TRUE(out.empty());
  }
}

TEST(CryptoDevice, VerifiesOnlyWhileOpen) {
  const Bytes alg = AlgId(kRsaSha256, kNull), spki = PublicKey(RsaKey());
  const Bytes sig = Sign(RsaKey(), "SHA256");
  CryptoDevice device;
  EXPECT_FALSE(device.verify(In(alg), In(spki), In(kMessage), In(sig)));
  ASSERT_TRUE(device.open(nullptr, nullptr, 0));
  ASSERT_TRUE(device.open(nullptr, nullptr, 0));  // already open
  EXPECT_TRUE(device.verify(In(alg), In(spki), In(kMessage), In(sig)));
  device.close();
  device.close();
  EXPECT_FALSE(device.verify(In(alg), In(spki), In(kMessage), In(sig)));
}

// Wycheproof: every case of every file. "acceptable" occurs only in the
// PKCS#1 v1.5 files, as MissingNull: a DigestInfo without the NULL that
// signers always write; the device compares the whole DigestInfo and
// refuses it.
std::vector<std::string> WycheproofFiles() {
  std::vector<std::string> files;
  std::error_code error;  // a missing directory fails WycheproofFilesArePresent
  const std::string dir = qt::TestDataPath("wycheproof/testvectors_v1");
  for (const auto& e : std::filesystem::directory_iterator(dir, error)) {
    files.push_back(e.path().filename().string());
  }
  std::sort(files.begin(), files.end());
  return files;
}

class CryptoDeviceWycheproof : public ::testing::TestWithParam<std::string> {};

TEST_P(CryptoDeviceWycheproof, EveryCase) {
  std::ifstream in(qt::TestDataPath("wycheproof/testvectors_v1/" + GetParam()));
  const nlohmann::json file = nlohmann::json::parse(in);
  const std::string algorithm = file["algorithm"];
  const std::map<std::string, std::vector<const char*>> kOids = {
      // hash, PKCS#1 v1.5, ECDSA
      {"SHA-1", {kSha1}},
      {"SHA-256", {kSha256, kRsaSha256, kEcdsaSha256}},
      {"SHA-384", {"2.16.840.1.101.3.4.2.2", "1.2.840.113549.1.1.12", "1.2.840.10045.4.3.3"}},
      {"SHA-512", {"2.16.840.1.101.3.4.2.3", "1.2.840.113549.1.1.13", "1.2.840.10045.4.3.4"}}};
  int run = 0;
  for (const auto& group : file["testGroups"]) {
    const Bytes spki = qt::Unhex(group["publicKeyDer"].get<std::string>());
    const auto& oids = kOids.at(group["sha"]);
    Bytes alg;
    if (algorithm == "RSASSA-PKCS1-v1_5") {
      alg = AlgId(oids.at(1), kNull);
    } else if (algorithm == "RSASSA-PSS") {
      ASSERT_EQ(group["mgf"], "MGF1");
      alg = AlgId(kRsaPss,
                  PssParams(oids[0], kOids.at(group["mgfSha"])[0], group["sLen"].get<int>()));
    } else {
      ASSERT_EQ(algorithm, "ECDSA");
      alg = AlgId(oids.at(2));
    }
    for (const auto& test : group["tests"]) {
      ++run;
      const std::string result = test["result"];
      if (result == "acceptable") {
        ASSERT_NE(test["flags"].dump().find("MissingNull"), std::string::npos) << test["tcId"];
      }
      EXPECT_EQ(Verifies(alg, spki, qt::Unhex(test["sig"].get<std::string>()),
                         qt::Unhex(test["msg"].get<std::string>())),
                result == "valid")
          << "tcId " << test["tcId"] << " (" << result << ") " << test["comment"];
    }
  }
  EXPECT_EQ(run, file["numberOfTests"].get<int>());
}

TEST(CryptoDevice, WycheproofFilesArePresent) { EXPECT_EQ(WycheproofFiles().size(), 19u); }

INSTANTIATE_TEST_SUITE_P(CryptoVectors, CryptoDeviceWycheproof,
                         ::testing::ValuesIn(WycheproofFiles()), [](const auto& info) {
                           std::string name = info.param.substr(0, info.param.find("_test"));
                           std::replace(name.begin(), name.end(), '.', '_');
                           return name;
                         });

// Signature identifiers beyond the vectors (one for each digest they lack,
// and a legacy one) name their digest; parameters may be NULL or absent; no
// signature is taken under an identifier of another digest;
// sha224WithRSAEncryption is not offered.
TEST(CryptoDevice, SignatureIdentifiersNameTheirDigest) {
  const Pkey ec = EcKey("prime256v1");
  const struct { const char* oid; const char* md; EVP_PKEY* key; } kCases[] = {
      {"1.2.840.113549.1.1.4", "MD5", RsaKey()}, {"1.3.36.3.3.1.2", "RIPEMD160", RsaKey()},
      {"1.2.840.10045.4.3.1", "SHA224", ec.get()}, {"1.3.6.1.5.5.8.1.2", "SHA1", ec.get()},
  };
  for (const auto& c : kCases) {
    const Bytes spki = PublicKey(c.key), sig = Sign(c.key, c.md);
    EXPECT_TRUE(Verifies(AlgId(c.oid), spki, sig)) << c.oid;
    EXPECT_TRUE(Verifies(AlgId(c.oid, kNull), spki, sig)) << c.oid << " with NULL";
    EXPECT_FALSE(Verifies(AlgId(c.key == RsaKey() ? kRsaSha256 : kEcdsaSha256), spki, sig));
  }
  EXPECT_FALSE(Verifies(AlgId("1.2.840.113549.1.1.14", kNull), PublicKey(RsaKey()),
                        Sign(RsaKey(), "SHA224")));
}

// RSA keys under the X.500 identifier, PSS parameters, and PSS keys, which
// sign PSS only and within the parameters they carry.
TEST(CryptoDevice, RsaKeyIdentifiersAndPssParameters) {
  const Bytes rsa_key = PublicKey(RsaKey(), true), spki = PublicKey(RsaKey());
  const Bytes pkcs1 = Sign(RsaKey(), "SHA256"), pkcs1_alg = AlgId(kRsaSha256, kNull);
  const Bytes pss32 = Sign(RsaKey(), "SHA256", "SHA256", 32);
  const Bytes pss64 = Sign(RsaKey(), "SHA256", "SHA256", 64);
  const Bytes pss_default = Sign(RsaKey(), "SHA1", "SHA1", 20);
  const Bytes key_size = {0x02, 0x02, 0x08, 0x00}, other = {0x06, 0x02, 0x2A, 0x03};
  const Bytes sha256_32 = PssParams(kSha256, kSha256, 32), empty = {0x30, 0x00};
  const Bytes pss_key = Spki(AlgId(kRsaPss), rsa_key);
  const Bytes restricted_key = Spki(AlgId(kRsaPss, sha256_32), rsa_key);
  const struct { const char* name; Bytes alg, spki; const Bytes& sig; bool verifies; } kCases[] = {
      {"X.500 RSA key, key size", pkcs1_alg, Spki(AlgId("2.5.8.1.1", key_size), rsa_key), pkcs1,
       true},
      {"X.500 RSA key, other parameters", pkcs1_alg, Spki(AlgId("2.5.8.1.1", other), rsa_key),
       pkcs1, false},
      {"rsaEncryption key, key size", pkcs1_alg,
       Spki(AlgId("1.2.840.113549.1.1.1", key_size), rsa_key), pkcs1, false},
      {"PSS defaults left out", AlgId(kRsaPss, empty), spki, pss_default, true},
      {"PSS without parameters", AlgId(kRsaPss), spki, pss_default, false},
      {"PSS with MD5", AlgId(kRsaPss, PssParams("1.2.840.113549.2.5", kSha256, 32)), spki, pss32,
       false},
      {"PSS key", AlgId(kRsaPss, sha256_32), pss_key, pss32, true},
      {"PSS key, PKCS#1 signature", pkcs1_alg, pss_key, pkcs1, false},
      {"restricted key, longer salt", AlgId(kRsaPss, PssParams(kSha256, kSha256, 64)),
       restricted_key, pss64, true},
      {"restricted key, other hash", AlgId(kRsaPss, empty), restricted_key, pss_default, false},
  };
  for (const auto& c : kCases) EXPECT_EQ(Verifies(c.alg, c.spki, c.sig), c.verifies) << c.name;
}

// Curves beyond the vectors' in each arc; secp256k1 is not on the list, and
// explicit curve parameters are refused even when they describe P-256.
TEST(CryptoDevice, NamedCurvesOnly) {
  const Bytes alg = AlgId(kEcdsaSha256);
  for (const char* curve : {"prime239v1", "secp224r1", "brainpoolP160t1", "secp256k1"}) {
    const Pkey key = EcKey(curve);
    EXPECT_EQ(Verifies(alg, PublicKey(key.get()), Sign(key.get(), "SHA256")),
              std::string(curve) != "secp256k1")
        << curve;
  }
  const Pkey p256 = EcKey("prime256v1");
  const Bytes sig = Sign(p256.get(), "SHA256");
  ASSERT_EQ(EVP_PKEY_set_utf8_string_param(p256.get(), OSSL_PKEY_PARAM_EC_ENCODING,
                                           OSSL_PKEY_EC_ENCODING_EXPLICIT),
            1);
  EXPECT_FALSE(Verifies(alg, PublicKey(p256.get()), sig));
}

// FRP256v1, which OpenSSL does not carry: a signature over kMessage that
// OpenSSL made with a key on the curve built from its published parameters,
// the key written with the curve's OID, its point uncompressed and compressed.
TEST(CryptoDevice, Frp256v1) {
  const char* frp = "1.2.250.1.223.101.256.1";
  const Bytes point = qt::Unhex(  // y even
      "045122AF1C5AA99E2479CE4E79422CADC2512893CBCDFF4A70D0A59AF681CB0B9D"
      "C1723381824F4B0C56F58831C3AF0723B8716DBAB034C3A335F127A125CDC8E2");
  const Bytes generator = qt::Unhex(  // y odd
      "04B6B3D4C356C139EB31183D4749D423958C27D2DCAF98B70164C97A2DD98F5CFF"
      "6142E0F7C8B204911F9271F0F3ECEF8C2701C307E8E4C9E183115A1554062CFB");
  const Bytes sig = qt::Unhex(
      "3046022100A81C219FC71FA1E297E224238D4597BC3067D35ABD7C2B851D935CDB9C2395BD"
      "022100B2A6F70A8F799818DC4BD4E9D9A092E948211A01CBEFFA7DD6A26910E5BE872B");
  const auto compressed = [](const Bytes& p) {
    Bytes out(p.begin(), p.begin() + 33);
    out[0] = static_cast<uint8_t>(0x02 | (p.back() & 1));
    return out;
  };
  const Bytes alg = AlgId(kEcdsaSha256);
  EXPECT_TRUE(Verifies(alg, EcSpki(frp, point), sig));
  EXPECT_TRUE(Verifies(alg, EcSpki(frp, compressed(point)), sig));
  EXPECT_FALSE(Verifies(alg, EcSpki(frp, point), sig, Bytes{'x'}));
  // The same point read on P-256 is not on that curve.
  EXPECT_FALSE(Verifies(alg, EcSpki("1.2.840.10045.3.1.7", point), sig));
  // The CertID key hash is over the uncompressed point, whichever form the
  // SPKI holds, for a compressed y of either parity.
  for (const Bytes& p : {point, generator}) {
    Bytes expected, got;
    ASSERT_TRUE(Device().sha1(In(p), &expected));
    for (const Bytes& form : {p, compressed(p)}) {
      ASSERT_TRUE(Device().keyHash(In(EcSpki(frp, form)), &got));
      EXPECT_EQ(got, expected);
    }
  }
}

// Malformed identifiers and keys, and signatures of the wrong size or family,
// fail cleanly; each case is one change to an input that verifies. (The
// vectors cover malformed ECDSA signatures, the empty one among them.)
TEST(CryptoDevice, MalformedInputsFail) {
  const Bytes rsa_spki = PublicKey(RsaKey()), rsa_sig = Sign(RsaKey(), "SHA256");
  const Bytes rsa_alg = AlgId(kRsaSha256, kNull), ec_alg = AlgId(kEcdsaSha256);
  const Pkey ec = EcKey("prime256v1");
  const Bytes ec_spki = PublicKey(ec.get()), ec_sig = Sign(ec.get(), "SHA256");
  ASSERT_TRUE(Verifies(rsa_alg, rsa_spki, rsa_sig) && Verifies(ec_alg, ec_spki, ec_sig));
  Bytes unused_bits = rsa_spki;  // the BIT STRING's unused-bits octet precedes the key
  unused_bits[rsa_spki.size() - PublicKey(RsaKey(), true).size() - 1] = 0x01;
  Bytes off_curve = ec_spki;
  off_curve.back() ^= 0x01;
  Bytes long_alg = rsa_alg, long_spki = rsa_spki;
  for (Bytes* b : {&long_alg, &long_spki}) b->push_back(0x00);
  const struct { const char* name; Bytes alg, spki, sig; } kCases[] = {
      {"alg: trailing byte", long_alg, rsa_spki, rsa_sig},
      {"alg: INTEGER parameters", AlgId(kRsaSha256, {0x02, 0x01, 0x01}), rsa_spki, rsa_sig},
      {"spki: trailing byte", rsa_alg, long_spki, rsa_sig},
      {"spki: unused bits", rsa_alg, unused_bits, rsa_sig},
      {"spki: EC point at infinity", ec_alg, EcSpki("1.2.840.10045.3.1.7", {0x00}), ec_sig},
      {"spki: EC point off the curve", ec_alg, off_curve, ec_sig},
      {"spki: EC without curve", ec_alg,
       Spki(AlgId("1.2.840.10045.2.1"), Bytes(ec_spki.end() - 65, ec_spki.end())), ec_sig},
      {"sig: RSA one byte short", rsa_alg, rsa_spki, Bytes(rsa_sig.begin() + 1, rsa_sig.end())},
      {"RSA algorithm, EC key", rsa_alg, ec_spki, rsa_sig},
      {"ECDSA algorithm, RSA key", ec_alg, rsa_spki, ec_sig},
  };
  for (const auto& c : kCases) EXPECT_FALSE(Verifies(c.alg, c.spki, c.sig)) << c.name;
}

// The CertID key hash is over the DER RSAPublicKey under every RSA key
// identifier; other keys, malformed keys, unknown digests and malformed names
// give none. (Real issuers meet OpenSSL's CertIDs in verify_test.)
TEST(CryptoDevice, KeyAndNameHashes) {
  const Bytes rsa_key = PublicKey(RsaKey(), true);
  Bytes expected, got;
  ASSERT_TRUE(Device().sha1(In(rsa_key), &expected));
  for (const Bytes& spki : {PublicKey(RsaKey()), Spki(AlgId("2.5.8.1.1"), rsa_key),
                            Spki(AlgId(kRsaPss), rsa_key)}) {
    ASSERT_TRUE(Device().keyHash(In(spki), &got));
    EXPECT_EQ(got, expected);
  }
  got = {1};
  EXPECT_FALSE(Device().keyHash(In(Spki(AlgId("1.2.840.10040.4.1"), {0x02, 0x01, 0x05})), &got));
  EXPECT_TRUE(got.empty());
  EXPECT_FALSE(Device().keyHash(In(Spki(AlgId("1.2.840.113549.1.1.1"), {0x30, 0x00})), &got));
  EXPECT_FALSE(Device().keyHash(In(PublicKey(RsaKey())), &got, der::Oid("1.2.3.4").bytes()));
  EXPECT_FALSE(Device().nameHash(In(Bytes{0x30, 0x01}), &got));
  EXPECT_FALSE(Device().nameHash(In(Bytes{0x30, 0x00, 0x00}), &got));
}

// Without locking (the default build) a guard taken twice does not wait;
// with locking the device waits for its guard before a digest.
TEST(Semaphore, DeviceWaitsForItsGuard) {
  Semaphore guard(1);
  if (!Semaphore::locking()) {
    guard.acquire();
    guard.acquire();
    guard.release();
    guard.release();
    GTEST_SKIP() << "this build's guards take no lock";
  }
  CryptoDevice device(&guard);
  ASSERT_TRUE(device.open(nullptr, nullptr, 0));
  std::atomic<bool> done{false};
  guard.acquire();
  std::thread other([&] {
    Bytes out;
    EXPECT_TRUE(device.sha256(In(kMessage), &out));
    done = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(done);
  guard.release();
  other.join();
  EXPECT_TRUE(done);
}

}  // namespace
}  // namespace quillon::pki
