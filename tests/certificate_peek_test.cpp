// The certificate peek that cache_trustedCA relies on: it must accept exactly
// the inputs Certificate::decode accepts and find the same issuer, on real
// certificates, every cut of them and byte-level damage to them.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/pem.h>

#include <filesystem>
#include <random>
#include <string>
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

// The peek agrees with decode(); on success its issuer is the decoded
// certificate's issuer element and prints as its issuer Name does.
void ExpectPeekLikeDecode(const Bytes& input, const std::string& what) {
  Certificate cert;
  const bool decoded = cert.decode(input.data(), input.size());
  Input issuer;
  std::vector<uint8_t> rewrite;
  const bool peeked = quillon::pki::PeekCertificateIssuer(Input(input), &issuer, &rewrite);
  ASSERT_EQ(peeked, decoded) << what;
  if (!decoded) return;
  const ByteView expected = cert.issuerBytes();
  EXPECT_EQ(issuer, Input(expected.data, expected.size)) << what;
  std::string text;
  EXPECT_TRUE(quillon::pki::PrintNameDer(issuer, &text)) << what;
  EXPECT_EQ(text, cert.issuer().toString()) << what;
  // DER input: the issuer is a view into it, printed without a second check.
  EXPECT_EQ(rewrite.empty(), cert.isStrictDER()) << what;
  if (rewrite.empty()) {
    EXPECT_TRUE(quillon::pki::PrintStrictDerName(issuer, &text)) << what;
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

TEST(CertificatePeek, AgreesWithDecodeOnEveryTestFile) {
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
}

TEST(CertificatePeek, AgreesWithDecodeOnCutsAndDamage) {
  // Certificates of different makers and shapes: PKITS (RSA, names with
  // optional attribute types and UTF8String), an EC certificate, and the
  // same in BER, whose damage goes through the rewrite to DER.
  std::vector<Sample> seeds;
  for (const char* f : {"nist-pkits/certs/GoodCACert.crt", "nist-pkits/certs/TrustAnchorRootCertificate.crt",
                        "nist-pkits/certs/ValidRFC3280OptionalAttributeTypesTest8EE.crt",
                        "nist-pkits/certs/UTF8StringCaseInsensitiveMatchCACert.crt"}) {
    seeds.push_back({f, qt::ReadFile(qt::TestDataPath(f))});
  }
  const auto pki = qt::MakePki(qt::KeyType::kEcP256);
  seeds.push_back({"EC leaf", qt::Der(pki.leaf.get())});
  seeds.push_back({"EC leaf in BER", LongFormLengths(qt::Der(pki.leaf.get()))});

  std::mt19937 random(20261122);
  for (const auto& seed : seeds) {
    ASSERT_FALSE(seed.der.empty()) << seed.origin;
    Certificate whole;
    ASSERT_TRUE(whole.decode(seed.der.data(), seed.der.size())) << seed.origin;
    for (size_t cut = 0; cut < seed.der.size(); ++cut) {
      ExpectPeekLikeDecode(Bytes(seed.der.begin(), seed.der.begin() + static_cast<ptrdiff_t>(cut)),
                           seed.origin + " cut " + std::to_string(cut));
    }
    for (int i = 0; i < 3000; ++i) {
      Bytes damaged = seed.der;
      const size_t at = random() % damaged.size();
      // Half the time a byte nearby in value (a length or tag off by a
      // little), else any byte.
      damaged[at] = i % 2 ? static_cast<uint8_t>(damaged[at] + 1 + random() % 3)
                          : static_cast<uint8_t>(random());
      ExpectPeekLikeDecode(damaged, seed.origin + " byte " + std::to_string(at) + " = " +
                                        std::to_string(damaged[at]));
    }
  }
}

}  // namespace
