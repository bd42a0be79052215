// The DER/BER reader, OID text and the BER to DER rewrite. (The writer is
// judged by the encoders' round trips.)
#include "pki/der.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quillon::der {
namespace {

using Bytes = std::vector<uint8_t>;

// One element read whole, nothing after it.
TEST(DerParser, ElementBoundaries) {
  const struct { const char* name; Bytes input; Mode mode; bool ok; } kCases[] = {
      {"short form", {0x04, 0x01, 0xAA}, Mode::kDer, true},
      {"truncated header", {0x04}, Mode::kDer, false},
      {"truncated content", {0x04, 0x03, 0xAA}, Mode::kDer, false},
      {"non-minimal long form", {0x04, 0x81, 0x01, 0xAA}, Mode::kDer, false},
      {"non-minimal long form in BER", {0x04, 0x81, 0x01, 0xAA}, Mode::kBer, true},
      {"length 2**32 - 1", {0x04, 0x84, 0xFF, 0xFF, 0xFF, 0xFF, 0x00}, Mode::kDer, false},
      {"five length octets", {0x04, 0x85, 0, 0, 0, 0, 1, 0xAA}, Mode::kDer, false},
      {"indefinite in DER", {0x30, 0x80, 0x05, 0x00, 0x00, 0x00}, Mode::kDer, false},
      {"indefinite in BER", {0x30, 0x80, 0x05, 0x00, 0x00, 0x00}, Mode::kBer, true},
      {"indefinite primitive", {0x04, 0x80, 0x00, 0x00}, Mode::kBer, false},
      {"indefinite without EOC", {0x30, 0x80, 0x05, 0x00}, Mode::kBer, false},
      {"high tag for a low number", {0x1F, 0x05, 0x00}, Mode::kDer, false},
      {"high tag number", {0x9F, 0x20, 0x00}, Mode::kDer, true},
      {"high tag leading 0x80", {0x9F, 0x80, 0x20, 0x00}, Mode::kDer, false},
  };
  for (const auto& c : kCases) {
    Parser p(Input(c.input), c.mode);
    Input whole;
    const bool ok = p.ReadRawTLV(&whole) && !p.HasMore();
    EXPECT_EQ(ok, c.ok) << c.name;
    EXPECT_EQ(whole.size(), ok ? c.input.size() : 0u) << c.name;
  }
}

// Values DER writes one way only.
TEST(DerParser, NonCanonicalValues) {
  const Bytes bool_01 = {0x01, 0x01, 0x01};
  bool b;
  uint64_t n;
  Input v;
  uint8_t unused;
  EXPECT_FALSE(Parser(Input(bool_01)).ReadBool(&b));
  EXPECT_TRUE(Parser(Input(bool_01), Mode::kBer).ReadBool(&b));
  EXPECT_FALSE(Parser(Input(Bytes{0x02, 0x02, 0x00, 0x01})).ReadInteger(&v));  // padded
  EXPECT_FALSE(Parser(Input(Bytes{0x02, 0x00}), Mode::kBer).ReadInteger(&v));  // empty
  EXPECT_FALSE(Parser(Input(Bytes{0x03, 0x02, 0x01, 0x01})).ReadBitString(&v, &unused));
  EXPECT_FALSE(Parser(Input(Bytes{0x02, 0x01, 0x80})).ReadUint64(&n));  // negative
}

TEST(DerParser, DepthLimit) {
  // 100 nested SEQUENCEs in BER with indefinite lengths.
  Bytes deep;
  for (int i = 0; i < 100; ++i) deep.insert(deep.end(), {0x30, 0x80});
  for (int i = 0; i < 100; ++i) deep.insert(deep.end(), {0x00, 0x00});
  Input whole;
  EXPECT_FALSE(Parser(Input(deep), Mode::kBer).ReadRawTLV(&whole));
  Limits wide;
  wide.max_depth = 200;
  EXPECT_TRUE(Parser(Input(deep), Mode::kBer, wide).ReadRawTLV(&whole));
  Bytes der;
  EXPECT_FALSE(NormaliseToDer(Input(deep), &der));
  EXPECT_TRUE(der.empty());
}

TEST(DerOid, TextRoundTrips) {
  Bytes content;
  std::string back;
  for (const char* text : {"2.5.29.35", "0.9.2342.19200300.100.1.25", "2.999.3",
                           "1.2.250.1.223.101.256.1"}) {
    ASSERT_TRUE(OidFromText(text, &content) && OidToText(Input(content), &back)) << text;
    EXPECT_EQ(back, text);
  }
  for (const char* bad : {"", "1", "3.1", "1.40", "1..2", "1.2.", "01.2", "1.2.x"}) {
    EXPECT_FALSE(OidFromText(bad, &content)) << bad;
  }
  for (const Bytes& bad : {Bytes{0x55, 0x80, 0x01}, Bytes{0x55, 0x81}, Bytes{}}) {
    EXPECT_FALSE(OidToText(Input(bad), &back));
  }
}

TEST(DerNormalise, BerFormsBecomeDer) {
  const struct { const char* name; Bytes ber, der; } kCases[] = {
      {"long-form length", {0x30, 0x81, 0x02, 0x05, 0x00}, {0x30, 0x02, 0x05, 0x00}},
      {"indefinite length", {0x30, 0x80, 0x05, 0x00, 0x00, 0x00}, {0x30, 0x02, 0x05, 0x00}},
      {"constructed octet string",
       {0x24, 0x80, 0x04, 0x01, 0xAA, 0x04, 0x02, 0xBB, 0xCC, 0x00, 0x00},
       {0x04, 0x03, 0xAA, 0xBB, 0xCC}},
      {"constructed bit string",
       {0x23, 0x09, 0x03, 0x02, 0x00, 0xAA, 0x03, 0x03, 0x04, 0xBB, 0xC0},
       {0x03, 0x04, 0x04, 0xAA, 0xBB, 0xC0}},
      {"unsorted set", {0x31, 0x06, 0x02, 0x01, 0x05, 0x02, 0x01, 0x01},
       {0x31, 0x06, 0x02, 0x01, 0x01, 0x02, 0x01, 0x05}},
  };
  for (const auto& c : kCases) {
    Bytes out;
    ASSERT_TRUE(NormaliseToDer(Input(c.ber), &out)) << c.name;
    EXPECT_EQ(out, c.der) << c.name;
    EXPECT_FALSE(IsStrictDer(Input(c.ber))) << c.name;
    EXPECT_TRUE(IsStrictDer(Input(c.der))) << c.name;
  }
  Bytes out;
  const Bytes trailing = {0x05, 0x00, 0x00};
  const Bytes bits_mid_unused = {0x23, 0x08, 0x03, 0x02, 0x04, 0xA0, 0x03, 0x02, 0x00, 0xBB};
  EXPECT_FALSE(NormaliseToDer(Input(trailing), &out));
  EXPECT_FALSE(NormaliseToDer(Input(bits_mid_unused), &out));
}

}  // namespace
}  // namespace quillon::der
