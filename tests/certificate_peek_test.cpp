// The certificate peek that cache_trustedCA relies on: it must accept exactly
// the inputs Certificate::decode accepts and find the same issuer, on real
// certificates, every cut of them and byte-level damage to them, and on
// inputs that read like DER but are not.
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
#include "support/der_writer.h"
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

// A certificate built by hand around the given issuer Name element and
// signature algorithm parameters (empty: none).
Bytes HandMadeCertificate(const Bytes& issuer, const Bytes& params) {
  namespace tder = qt::der;
  qt::DerWriter w;
  const auto algorithm = [&] {
    w.Begin(tder::kSequence);
    w.Oid("1.2.840.10045.4.3.2");
    w.Raw(params);
    w.End();
  };
  w.Begin(tder::kSequence);
  w.Begin(tder::kSequence);
  w.Begin(tder::CtxCons(0));
  w.Integer(2);
  w.End();
  w.Integer(0x1234);
  algorithm();
  w.Raw(issuer);
  w.Begin(tder::kSequence);
  w.UtcTime(1700000000);
  w.UtcTime(1800000000);
  w.End();
  w.Raw(issuer);
  w.Begin(tder::kSequence);
  w.Begin(tder::kSequence);
  w.Oid("1.2.840.10045.2.1");
  w.Oid("1.2.840.10045.3.1.7");
  w.End();
  const Bytes point(65, 0x04);
  w.BitString(point);
  w.End();
  w.End();
  algorithm();
  w.BitString(Bytes(70, 0x30));
  w.End();
  return w.Take();
}

// issuer: C=IT, {CN=<first> + O=<second>} with the SET members in the given
// order of the two attributes.
Bytes TwoValuedName(bool sorted) {
  namespace tder = qt::der;
  const auto attribute = [](const char* oid, const char* value) {
    qt::DerWriter a;
    a.Begin(tder::kSequence);
    a.Oid(oid);
    a.Tlv(tder::kUtf8String, std::string_view(value));
    a.End();
    return a.Take();
  };
  const Bytes cn = attribute("2.5.4.3", "Peek CA");
  const Bytes o = attribute("2.5.4.10", "Quillon");
  const bool cn_first = cn < o;
  qt::DerWriter w;
  w.Begin(tder::kSequence);
  w.Begin(tder::kSet);
  w.Raw(attribute("2.5.4.6", "IT"));
  w.End();
  w.Begin(tder::kSet);
  w.Raw(cn_first == sorted ? cn : o);
  w.Raw(cn_first == sorted ? o : cn);
  w.End();
  w.End();
  return w.Take();
}

TEST(CertificatePeek, AgreesWithDecodeWhereDerHeadersHideBer) {
  // Every header in DER form, yet not DER: an unsorted SET in a name, and
  // algorithm parameters with a long-form length inside. Decoding takes
  // them as BER; the peek must not take them for DER.
  const Bytes sorted = TwoValuedName(true);
  const Bytes unsorted = TwoValuedName(false);
  const Bytes ber_params = {0x30, 0x81, 0x02, 0x05, 0x00};
  const Bytes der_params = {0x30, 0x02, 0x05, 0x00};
  struct Case {
    const char* what;
    Bytes der;
    bool strict;
  } cases[] = {
      {"DER", HandMadeCertificate(sorted, der_params), true},
      {"unsorted RDN", HandMadeCertificate(unsorted, {}), false},
      {"BER parameters", HandMadeCertificate(sorted, ber_params), false},
  };
  for (const auto& c : cases) {
    Certificate cert;
    ASSERT_TRUE(cert.decode(c.der.data(), c.der.size())) << c.what;
    EXPECT_EQ(cert.isStrictDER(), c.strict) << c.what;
    ExpectPeekLikeDecode(c.der, c.what);
  }
  // The unsorted name prints as its sorted DER form does.
  Certificate a, b;
  const Bytes x = HandMadeCertificate(unsorted, {}), y = HandMadeCertificate(sorted, {});
  ASSERT_TRUE(a.decode(x.data(), x.size()) && b.decode(y.data(), y.size()));
  EXPECT_EQ(a.issuer().toString(), b.issuer().toString());
}

}  // namespace
