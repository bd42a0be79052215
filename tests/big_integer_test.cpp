// BigInteger: content octets, hex text and ordering, judged by OpenSSL's own
// reading and printing of the same INTEGER. (Real serials are walked in the
// certificate and CRL tests.)
#include "quillon32/big_integer.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>

#include <algorithm>
#include <climits>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

// An INTEGER element of fewer than 128 content octets.
Bytes Element(const Bytes& content) {
  Bytes out(content.size() + 2);
  out[0] = 0x02;
  out[1] = static_cast<unsigned char>(content.size());
  std::copy(content.begin(), content.end(), out.begin() + 2);
  return out;
}

// What "openssl x509 -serial" prints for the INTEGER, without line breaks.
std::string OpenSslHex(const Bytes& content) {
  const Bytes element = Element(content);
  const unsigned char* p = element.data();
  ASN1_INTEGER* n = d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(element.size()));
  BIO* bio = BIO_new(BIO_s_mem());
  i2a_ASN1_INTEGER(bio, n);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio, &data);
  std::string out(data, static_cast<size_t>(length));
  BIO_free(bio);
  ASN1_INTEGER_free(n);
  for (size_t at; (at = out.find("\\\n")) != std::string::npos;) out.erase(at, 2);
  return out;
}

// Minimal content octets in ascending order of value, around the sign and
// octet boundaries and either side of the 64 octets the printer keeps on the
// stack.
TEST(BigInteger, ContentHexAndOrder) {
  const auto filled = [](size_t size, unsigned char top) {
    Bytes content(size);
    for (size_t i = 0; i < size; ++i) content[i] = static_cast<unsigned char>(i * 37 + 11);
    content[0] = top;
    return content;
  };
  const Bytes kAscending[] = {
      filled(65, 0xA5), {0x80, 0, 0, 0, 0, 0, 0, 0, 0}, {0xFF, 0x7F, 0xFF}, {0xFF, 0x00},
      {0xFF, 0x7F},     {0x80},                         {0xFF},             {0x00},
      {0x7F},           {0x00, 0x80},                   {0x01, 0x00},       filled(64, 0x5A),
      filled(65, 0x5A),
  };
  std::vector<BigInteger> values;
  for (const Bytes& content : kAscending) {
    const std::string hex = OpenSslHex(content);
    SCOPED_TRACE(hex);
    BigInteger n, from_hex, decoded;
    ASSERT_TRUE(n.fromDerContent(content.data(), content.size()));
    EXPECT_EQ(n.toHex(), hex);
    EXPECT_EQ(n.toDerContent(), content);
    EXPECT_EQ(n.encode(), Element(content));
    EXPECT_EQ(n.isNegative(), hex[0] == '-');
    EXPECT_EQ(n.isZero(), hex == "00");
    ASSERT_TRUE(from_hex.fromHex(hex.c_str()));
    EXPECT_EQ(from_hex.toDerContent(), content);
    ASSERT_TRUE(decoded.decode(n.encode().data(), n.encode().size()));
    EXPECT_EQ(decoded, n);
    values.push_back(n);
  }
  for (size_t i = 0; i < values.size(); ++i) {
    for (size_t j = 0; j < values.size(); ++j) {
      EXPECT_EQ(values[i].compare(values[j]), i < j ? -1 : (i > j ? 1 : 0)) << i << " " << j;
      EXPECT_EQ(values[i] < values[j], i < j);
    }
  }
}

// Hex text in either case and without padding is read; anything else leaves
// the value as it was.
TEST(BigInteger, HexText) {
  const std::pair<const char*, const char*> kAccepted[] = {
      {"0a1b", "0A1B"}, {"3E9", "03E9"}, {"-1", "-01"}, {"-00", "00"}, {"000001", "01"}};
  for (const auto& [in, out] : kAccepted) {
    BigInteger n;
    ASSERT_TRUE(n.fromHex(in)) << in;
    EXPECT_EQ(n.toHex(), out) << in;
  }
  for (const char* bad : {"", "-", "0x1F", "1G", " 1", "1 ", "--1", "+1", "1-"}) {
    BigInteger n(42);
    EXPECT_FALSE(n.fromHex(bad)) << '"' << bad << '"';
    EXPECT_EQ(n.toHex(), "2A") << bad;
  }
}

// BER leniency is by value: non-minimal forms are read, minimal ones written.
TEST(BigInteger, LenientAndMalformedElements) {
  const std::pair<Bytes, const char*> kCases[] = {
      {{0x02, 0x03, 0x00, 0x00, 0x01}, "01"},
      {{0x02, 0x02, 0xFF, 0x80}, "-80"},
      {{0x02, 0x81, 0x01, 0x05}, "05"},     // long-form length
      {{0x02, 0x00}, nullptr},              // no content octets
      {{0x0A, 0x01, 0x05}, nullptr},        // ENUMERATED
      {{0x02, 0x02, 0x05}, nullptr},        // truncated
      {{0x02, 0x01, 0x05, 0x00}, nullptr},  // trailing byte
  };
  for (const auto& [der, hex] : kCases) {
    BigInteger n(-7);
    EXPECT_EQ(n.decode(der.data(), der.size()), hex != nullptr) << der.size();
    EXPECT_EQ(n.toHex(), hex ? hex : "-07");
    EXPECT_EQ(n.encode().size(), 3u);
  }
}

TEST(BigInteger, LongValuesCopiesAndMoves) {
  EXPECT_EQ(BigInteger(LONG_MIN).toHex(), "-8000000000000000");
  EXPECT_EQ(BigInteger(LONG_MAX).toHex(), "7FFFFFFFFFFFFFFF");
  BigInteger a(300);
  BigInteger copy(a);
  ASSERT_TRUE(a.fromHex("-05"));
  EXPECT_EQ(copy.toHex(), "012C");
  BigInteger moved(std::move(copy));
  EXPECT_TRUE(copy.isZero());  // NOLINT(bugprone-use-after-move): defined as zero
  ASSERT_TRUE(copy.fromHex("10"));
  EXPECT_EQ(copy.toHex(), "10");
  a = std::move(moved);
  EXPECT_EQ(a.toHex(), "012C");
  EXPECT_TRUE(moved.isZero());  // NOLINT(bugprone-use-after-move)
}

}  // namespace
