// The certificate peek that cache_trustedCA relies on: it must accept exactly
// the inputs Certificate::decode accepts and find the same issuer, on real
// certificates, every cut of them and byte-level damage to them, and on
// inputs that read like DER but are not.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "pki/certificate_parts.h"
#include "pki/der.h"
#include "pki/name_der.h"
#include "quillon32/certificate.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
using Bytes = std::vector<uint8_t>;
using quillon::der::Input;

struct Sample {
  std::string origin;
  Bytes der;
};

// Every DER file and every PEM block of the test data, whatever it holds:
// the CRLs, OCSP responses and keys among them are inputs the peek must
// refuse as decoding does.
const std::vector<Sample>& Samples() {
  static const std::vector<Sample> samples = [] {
    std::vector<Sample> out;
    for (const auto& e : std::filesystem::recursive_directory_iterator(qt::TestDataPath(""))) {
      if (!e.is_regular_file() || e.file_size() > (1u << 20)) continue;
      const Bytes bytes = qt::ReadFile(e.path().string());
      if (!bytes.empty() && bytes[0] == 0x30) out.push_back({e.path().string(), bytes});
      BIO* bio = BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size()));
      char *label = nullptr, *header = nullptr;
      unsigned char* data = nullptr;
      long len = 0;
      while (PEM_read_bio(bio, &label, &header, &data, &len) == 1) {
        out.push_back({e.path().string() + " " + label, Bytes(data, data + len)});
        OPENSSL_free(label);
        OPENSSL_free(header);
        OPENSSL_free(data);
      }
      BIO_free(bio);
      ERR_clear_error();
    }
    return out;
  }();
  return samples;
}

// The peek agrees with decode(); on success its issuer text is the decoded
// certificate's issuer printed.
void ExpectPeekLikeDecode(const Bytes& input, const std::string& what) {
  Certificate cert;
  const bool decoded = cert.decode(input.data(), input.size());
  std::string text;
  const bool peeked = quillon::pki::PeekCertificateIssuerText(Input(input), &text);
  ASSERT_EQ(peeked, decoded) << what;
  if (decoded) {
    EXPECT_EQ(text, cert.issuer().toString()) << what;
  }
}

// A certificate with its outer and TBS lengths in long form, as a BER
// encoder may send it.
Bytes LongFormLengths(const Bytes& der) {
  if (der.size() < 8 || der[1] != 0x82 || der[4] != 0x30 || der[5] != 0x82) return {};
  Bytes ber = {0x30, 0x84, 0x00, 0x00, 0x00, 0x00, 0x30, 0x83, 0x00, der[6], der[7]};
  ber.insert(ber.end(), der.begin() + 8, der.end());
  const size_t outer = ber.size() - 6;
  ber[4] = static_cast<uint8_t>(outer >> 8);
  ber[5] = static_cast<uint8_t>(outer);
  return ber;
}

// Every test file, each certificate again in BER, and every cut and random
// byte damage of a few certificates of different makers and shapes (names
// with optional attribute types and UTF8String; an EC certificate in BER,
// whose damage goes through the rewrite to DER).
TEST(CertificatePeek, AgreesWithDecode) {
  const auto& samples = Samples();
  ASSERT_GT(samples.size(), 500u);
  int accepted = 0;
  for (const auto& s : samples) {
    ExpectPeekLikeDecode(s.der, s.origin);
    Certificate c;
    if (c.decode(s.der.data(), s.der.size())) {
      ++accepted;
      const Bytes ber = LongFormLengths(s.der);
      if (!ber.empty()) ExpectPeekLikeDecode(ber, s.origin + " in BER");
    }
  }
  EXPECT_GT(accepted, 400);

  std::vector<Sample> seeds;
  for (const char* f : {"nist-pkits/certs/ValidRFC3280OptionalAttributeTypesTest8EE.crt",
                        "nist-pkits/certs/UTF8StringCaseInsensitiveMatchCACert.crt"}) {
    seeds.push_back({f, qt::ReadFile(qt::TestDataPath(f))});
  }
  const auto pki = qt::MakePki(qt::KeyType::kEcP256);
  seeds.push_back({"EC leaf in BER", LongFormLengths(qt::Der(pki.leaf.get()))});
  std::mt19937 random(20261122);
  for (const auto& seed : seeds) {
    Certificate whole;
    ASSERT_TRUE(whole.decode(seed.der.data(), seed.der.size())) << seed.origin;
    for (size_t cut = 0; cut < seed.der.size(); ++cut) {
      ExpectPeekLikeDecode(Bytes(seed.der.begin(), seed.der.begin() + static_cast<ptrdiff_t>(cut)),
                           seed.origin + " cut " + std::to_string(cut));
    }
    for (int i = 0; i < 3000; ++i) {
      Bytes damaged = seed.der;
      const size_t at = random() % damaged.size();
      // Half the time a length or tag off by a little, else any byte.
      damaged[at] = i % 2 ? static_cast<uint8_t>(damaged[at] + 1 + random() % 3)
                          : static_cast<uint8_t>(random());
      ExpectPeekLikeDecode(damaged, seed.origin + " byte " + std::to_string(at));
    }
  }
}

// C=IT, CN=Peek CA + O=Quillon: in DER, and with the two-valued RDN's
// members out of order.
std::pair<Bytes, Bytes> TwoValuedNames() {
  const Bytes sorted = qt::NameDer({{{"C", "IT"}}, {{"CN", "Peek CA"}, {"O", "Quillon"}}});
  Bytes cn = qt::NameDer(qt::Dn({{"CN", "Peek CA"}})), o = qt::NameDer(qt::Dn({{"O", "Quillon"}}));
  for (Bytes* a : {&cn, &o}) a->erase(a->begin(), a->begin() + 4);  // the attribute alone
  Bytes unsorted(sorted.begin(), sorted.end() - static_cast<ptrdiff_t>(cn.size() + o.size()));
  for (const Bytes* a : {&std::max(cn, o), &std::min(cn, o)}) {
    unsorted.insert(unsorted.end(), a->begin(), a->end());
  }
  return {sorted, unsorted};
}

// Every header in DER form, yet not DER: an unsorted SET in the issuer name,
// and algorithm parameters with a long-form length inside. Decoding takes
// them as BER; the peek must not take them for DER.
TEST(CertificatePeek, AgreesWithDecodeWhereDerHeadersHideBer) {
  const auto [sorted, unsorted] = TwoValuedNames();
  ASSERT_NE(sorted, unsorted);
  const auto& key = qt::PooledKey(qt::KeyType::kRsa2048, 0);
  const Bytes der = qt::Der(qt::MakeCert(qt::RootCaSpec(
      {{{"C", "IT"}}, {{"CN", "Peek CA"}, {"O", "Quillon"}}}, key)).get());
  ASSERT_TRUE(der.size() > 8 && der[1] == 0x82 && der[5] == 0x82);
  // The first occurrence (the issuer; the TBS signature algorithm) replaced.
  const auto replaced = [&](const Bytes& from, const Bytes& to) {
    Bytes out = der;
    const auto at = std::search(out.begin(), out.end(), from.begin(), from.end());
    EXPECT_NE(at, out.end());
    if (at == out.end()) return out;
    out.insert(out.erase(at, at + static_cast<ptrdiff_t>(from.size())), to.begin(), to.end());
    for (size_t length_at : {2, 6}) {  // the outer and TBS lengths
      const size_t n = (out[length_at] << 8 | out[length_at + 1]) + to.size() - from.size();
      out[length_at] = static_cast<uint8_t>(n >> 8);
      out[length_at + 1] = static_cast<uint8_t>(n);
    }
    return out;
  };
  const Bytes alg = qt::SignatureAlgorithmDer(key);
  ASSERT_EQ(Bytes(alg.end() - 2, alg.end()), (Bytes{0x05, 0x00}));
  Bytes ber_alg(alg.begin(), alg.end() - 1);
  ber_alg[1] += 1;
  ber_alg.insert(ber_alg.end(), {0x81, 0x00});
  const struct { const char* what; Bytes der; bool strict; } kCases[] = {
      {"DER", der, true},
      {"unsorted RDN", replaced(sorted, unsorted), false},
      {"BER parameters", replaced(alg, ber_alg), false},
  };
  Certificate good;
  ASSERT_TRUE(good.decode(der.data(), der.size()));
  for (const auto& c : kCases) {
    Certificate cert;
    ASSERT_TRUE(cert.decode(c.der.data(), c.der.size())) << c.what;
    EXPECT_EQ(cert.isStrictDER(), c.strict) << c.what;
    ExpectPeekLikeDecode(c.der, c.what);
    // The unsorted name prints as its sorted DER form does.
    EXPECT_EQ(cert.issuer().toString(), good.issuer().toString()) << c.what;
  }
}

}  // namespace
