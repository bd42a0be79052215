#include "quillon32/big_integer.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>

#include <algorithm>
#include <climits>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "pki/der.h"

namespace {

using Bytes = std::vector<unsigned char>;

// What "openssl x509 -serial" prints for an INTEGER element: OpenSSL's own
// reading and printing, independent of BigInteger.
std::string OpenSslHex(const Bytes& element) {
  const unsigned char* p = element.data();
  ASN1_INTEGER* n = d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(element.size()));
  if (n == nullptr) return "<d2i failed>";
  BIO* bio = BIO_new(BIO_s_mem());
  i2a_ASN1_INTEGER(bio, n);
  char* data = nullptr;
  const long len = BIO_get_mem_data(bio, &data);
  std::string out(data, static_cast<size_t>(len));
  BIO_free(bio);
  ASN1_INTEGER_free(n);
  return out;
}

Bytes Element(const Bytes& content) {
  Bytes out(content.size() + 2);
  out[0] = 0x02;
  out[1] = static_cast<unsigned char>(content.size());
  std::copy(content.begin(), content.end(), out.begin() + 2);
  return out;
}

// Minimal content octets, in ascending order of value.
const std::vector<std::pair<Bytes, std::string>>& OrderedCases() {
  static const std::vector<std::pair<Bytes, std::string>> cases = {
      {{0x80, 0, 0, 0, 0, 0, 0, 0, 0}, "-800000000000000000"},
      {{0xFF, 0, 0, 0, 0, 0, 0, 0, 0}, "-010000000000000000"},
      {{0xFF, 0x7F, 0xFF}, "-8001"},
      {{0x80, 0x00}, "-8000"},
      {{0xFF, 0x00}, "-0100"},
      {{0xFF, 0x7F}, "-81"},
      {{0x80}, "-80"},
      {{0xFF}, "-01"},
      {{0x00}, "00"},
      {{0x01}, "01"},
      {{0x7F}, "7F"},
      {{0x00, 0x80}, "80"},
      {{0x00, 0xFF}, "FF"},
      {{0x01, 0x00}, "0100"},
      {{0x7F, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19},
       "7F0102030405060708090A0B0C0D0E0F10111213"},
      {{0x00, 0x80, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19},
       "800102030405060708090A0B0C0D0E0F10111213"},
  };
  return cases;
}

TEST(BigInteger, DerContentAndHexRoundTrip) {
  for (const auto& [content, hex] : OrderedCases()) {
    BigInteger n;
    ASSERT_TRUE(n.fromDerContent(content.data(), content.size())) << hex;
    EXPECT_EQ(n.toHex(), hex);
    EXPECT_EQ(n.toHex(), OpenSslHex(Element(content))) << hex;
    EXPECT_EQ(n.toDerContent(), content) << hex;
    EXPECT_EQ(n.encode(), Element(content)) << hex;
    EXPECT_EQ(n.isNegative(), hex[0] == '-') << hex;
    EXPECT_EQ(n.isZero(), hex == "00") << hex;

    BigInteger from_hex;
    ASSERT_TRUE(from_hex.fromHex(hex.c_str())) << hex;
    EXPECT_EQ(from_hex.toDerContent(), content) << hex;
    BigInteger decoded;
    ASSERT_TRUE(decoded.decode(n.encode().data(), n.encode().size())) << hex;
    EXPECT_EQ(decoded, n) << hex;
  }
}

// Magnitudes around the size the printer keeps on the stack, and far
// beyond it, in both signs.
TEST(BigInteger, HexOfLongMagnitudes) {
  for (const size_t size : {size_t{63}, size_t{64}, size_t{65}, size_t{66}, size_t{120}}) {
    for (const uint8_t top : {uint8_t{0x5A}, uint8_t{0xA5}}) {
      std::vector<unsigned char> content(size);
      for (size_t i = 0; i < size; ++i) content[i] = static_cast<unsigned char>(i * 37 + 11);
      content[0] = top;
      BigInteger n;
      ASSERT_TRUE(n.fromDerContent(content.data(), content.size())) << size;
      // OpenSSL breaks its line every 70 digits with a backslash.
      std::string expected = OpenSslHex(Element(content));
      for (size_t at; (at = expected.find("\\\n")) != std::string::npos;) expected.erase(at, 2);
      EXPECT_EQ(n.toHex(), expected) << size << " " << int{top};
    }
  }
}

TEST(BigInteger, HexText) {
  const struct { const char* in; const char* out; } accepted[] = {
      {"0a1b", "0A1B"}, {"3E9", "03E9"}, {"-1", "-01"}, {"-00", "00"}, {"000001", "01"},
  };
  for (const auto& c : accepted) {
    BigInteger n;
    ASSERT_TRUE(n.fromHex(c.in)) << c.in;
    EXPECT_EQ(n.toHex(), c.out) << c.in;
  }
  for (const char* bad : {"", "-", "0x1F", "1G", " 1", "1 ", "--1", "+1", "1-"}) {
    BigInteger n(42);
    EXPECT_FALSE(n.fromHex(bad)) << '"' << bad << '"';
    EXPECT_EQ(n.toHex(), "2A") << bad;
  }
}

// BER leniency is by value: non-minimal forms read, minimal ones written.
TEST(BigInteger, LenientAndMalformedInputs) {
  const struct { Bytes der; const char* hex; } cases[] = {
      {{0x02, 0x03, 0x00, 0x00, 0x01}, "01"},
      {{0x02, 0x02, 0xFF, 0x80}, "-80"},
      {{0x02, 0x81, 0x01, 0x05}, "05"},        // long-form length
      {{}, nullptr},
      {{0x02, 0x00}, nullptr},                 // no content octets
      {{0x0A, 0x01, 0x05}, nullptr},           // ENUMERATED
      {{0x02, 0x02, 0x05}, nullptr},           // truncated
      {{0x02, 0x01, 0x05, 0x00}, nullptr},     // trailing byte
  };
  for (const auto& c : cases) {
    BigInteger n(-7);
    EXPECT_EQ(n.decode(c.der.data(), c.der.size()), c.hex != nullptr) << c.der.size();
    EXPECT_EQ(n.toHex(), c.hex ? c.hex : "-07");
    if (c.hex) {
      BigInteger minimal;
      ASSERT_TRUE(minimal.fromHex(c.hex));
      EXPECT_EQ(n.encode(), minimal.encode()) << c.hex;
    }
  }
}

TEST(BigInteger, OrderingAcrossSigns) {
  const auto& cases = OrderedCases();
  std::vector<BigInteger> values(cases.size());
  for (size_t i = 0; i < cases.size(); ++i) {
    ASSERT_TRUE(values[i].fromDerContent(cases[i].first.data(), cases[i].first.size()));
  }
  for (size_t i = 0; i < values.size(); ++i) {
    for (size_t j = 0; j < values.size(); ++j) {
      const int expected = i < j ? -1 : (i > j ? 1 : 0);
      EXPECT_EQ(values[i].compare(values[j]), expected) << cases[i].second << " vs " << cases[j].second;
      EXPECT_EQ(values[i] < values[j], i < j);
    }
  }
}

TEST(BigInteger, LongValuesAndOwnership) {
  EXPECT_EQ(BigInteger(LONG_MIN).toHex(), "-8000000000000000");
  EXPECT_EQ(BigInteger(LONG_MAX).toHex(), "7FFFFFFFFFFFFFFF");

  BigInteger a(300);
  BigInteger copy(a);
  ASSERT_TRUE(a.fromHex("-05"));
  EXPECT_EQ(copy.toHex(), "012C");  // the copy owns its own BIGNUM
  EXPECT_NE(copy.bignum(), a.bignum());

  BigInteger moved(std::move(copy));
  EXPECT_EQ(moved.toHex(), "012C");
  EXPECT_TRUE(copy.isZero());  // NOLINT(bugprone-use-after-move): defined as zero
  ASSERT_NE(copy.bignum(), nullptr);
  ASSERT_TRUE(copy.fromHex("10"));
  EXPECT_EQ(copy.toHex(), "10");

  BigInteger target(1);
  target = std::move(moved);
  EXPECT_EQ(target.toHex(), "012C");
  EXPECT_TRUE(moved.isZero());  // NOLINT(bugprone-use-after-move)
}

// Serials of real certificates, read from the TBSCertificate with the DER
// reader, must print as OpenSSL prints them. cert-facts.csv writes them without
// zero padding ("3E9", "-1"), so it is padded to whole octets before comparing.
TEST(BigInteger, SerialsOfNistCertificates) {
  const std::string dir = std::string(QUILLON_TESTDATA_DIR) + "/nist-pkits/";
  std::map<std::string, std::string> csv_serial;
  std::ifstream csv(dir + "cert-facts.csv");
  for (std::string line; std::getline(csv, line);) {
    // cert,"subject","issuer",serial_hex,...: the serial is the fourth field.
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (char ch : line) {
      if (ch == '"') quoted = !quoted;
      else if (ch == ',' && !quoted) fields.emplace_back();
      else fields.back() += ch;
    }
    if (fields.size() > 3) csv_serial[fields[0]] = fields[3];
  }
  for (const char* name :
       {"TrustAnchorRootCertificate.crt", "GoodCACert.crt", "UIDCACert.crt", "DSACACert.crt",
        "ValidNegativeSerialNumberTest14EE.crt", "InvalidNegativeSerialNumberTest15EE.crt",
        "ValidLongSerialNumberTest16EE.crt", "ValidLongSerialNumberTest17EE.crt",
        "InvalidLongSerialNumberTest18EE.crt"}) {
    std::ifstream in(dir + "certs/" + name, std::ios::binary);
    const Bytes file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    using namespace quillon::der;
    Parser outer{Input(file.data(), file.size())}, cert, tbs, version;
    bool present = false;
    Tag tag = 0;
    Input content, whole;
    ASSERT_TRUE(outer.ReadSequence(&cert) && cert.ReadSequence(&tbs) &&
                tbs.ReadOptionalConstructed(ContextSpecificConstructed(0), &version, &present) &&
                tbs.ReadElement(&tag, &content, &whole) && tag == kInteger)
        << name;
    BigInteger serial;
    ASSERT_TRUE(serial.decode(whole.data(), whole.size())) << name;

    ASSERT_TRUE(csv_serial.count(name)) << name;
    std::string expected = csv_serial[name];
    const std::string sign = expected[0] == '-' ? "-" : "";
    std::string digits = expected.substr(sign.size());
    if (digits.size() % 2) digits.insert(0, "0");
    EXPECT_EQ(serial.toHex(), sign + digits) << name;
    EXPECT_EQ(serial.encode(), whole.ToVector()) << name;
  }
}

}  // namespace
