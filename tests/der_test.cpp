#include "pki/der.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace quillon::der {
namespace {

using Bytes = std::vector<uint8_t>;

struct ReaderCase {
  const char* name;
  Bytes input;
  Mode mode;
  bool ok;
};

// Reader edge cases: one element read whole, nothing may follow.
TEST(DerParser, ElementBoundaries) {
  const ReaderCase cases[] = {
      {"short form", {0x04, 0x01, 0xAA}, Mode::kDer, true},
      {"empty content", {0x05, 0x00}, Mode::kDer, true},
      {"truncated header", {0x04}, Mode::kDer, false},
      {"truncated content", {0x04, 0x03, 0xAA}, Mode::kDer, false},
      {"non-minimal long form", {0x04, 0x81, 0x01, 0xAA}, Mode::kDer, false},
      {"non-minimal long form in BER", {0x04, 0x81, 0x01, 0xAA}, Mode::kBer, true},
      {"leading zero length octet", {0x04, 0x82, 0x00, 0x01, 0xAA}, Mode::kDer, false},
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
  for (const auto& c : cases) {
    Parser p(Input(c.input), c.mode);
    Input whole;
    const bool ok = p.ReadRawTLV(&whole) && !p.HasMore();
    EXPECT_EQ(ok, c.ok) << c.name;
    if (ok) {
      EXPECT_EQ(whole.size(), c.input.size()) << c.name;
    }
  }
}

TEST(DerParser, SequenceWalkAndTypedValues) {
  // SEQUENCE { INTEGER 300, BOOLEAN TRUE, [0] { NULL }, OID 2.5.29.35, BIT STRING }
  const Bytes der = {0x30, 0x14, 0x02, 0x02, 0x01, 0x2C, 0x01, 0x01, 0xFF, 0xA0, 0x02,
                     0x05, 0x00, 0x06, 0x03, 0x55, 0x1D, 0x23, 0x03, 0x02, 0x07, 0x80};
  Parser outer{Input(der)};
  Parser seq;
  ASSERT_TRUE(outer.ReadSequence(&seq));
  uint64_t n = 0;
  ASSERT_TRUE(seq.ReadUint64(&n));
  EXPECT_EQ(n, 300u);
  bool b = false;
  ASSERT_TRUE(seq.ReadBool(&b));
  EXPECT_TRUE(b);
  Parser tagged;
  bool present = false;
  ASSERT_TRUE(seq.ReadOptionalConstructed(ContextSpecificConstructed(1), &tagged, &present));
  EXPECT_FALSE(present);
  ASSERT_TRUE(seq.ReadOptionalConstructed(ContextSpecificConstructed(0), &tagged, &present));
  EXPECT_TRUE(present);
  EXPECT_TRUE(tagged.Skip(kNull));
  Input oid;
  ASSERT_TRUE(seq.ReadOid(&oid));
  EXPECT_TRUE(Oid("2.5.29.35") == oid);
  Input bits;
  uint8_t unused = 0;
  ASSERT_TRUE(seq.ReadBitString(&bits, &unused));
  EXPECT_EQ(unused, 7);
  EXPECT_FALSE(seq.HasMore());
  EXPECT_FALSE(outer.HasMore());
}

TEST(DerParser, RejectsNonCanonicalValues) {
  const Bytes bool_01 = {0x01, 0x01, 0x01};
  const Bytes int_padded = {0x02, 0x02, 0x00, 0x01};
  const Bytes int_empty = {0x02, 0x00};
  const Bytes bits_dirty = {0x03, 0x02, 0x01, 0x01};
  const Bytes int_negative = {0x02, 0x01, 0x80};
  bool b;
  uint64_t u;
  Input v, bits;
  uint8_t unused;
  EXPECT_FALSE(Parser(Input(bool_01)).ReadBool(&b));
  EXPECT_TRUE(Parser(Input(bool_01), Mode::kBer).ReadBool(&b));
  EXPECT_FALSE(Parser(Input(int_padded)).ReadInteger(&v));
  EXPECT_FALSE(Parser(Input(int_empty), Mode::kBer).ReadInteger(&v));
  EXPECT_FALSE(Parser(Input(bits_dirty)).ReadBitString(&bits, &unused));
  EXPECT_FALSE(Parser(Input(int_negative)).ReadUint64(&u));
}

TEST(DerParser, DepthLimit) {
  // 100 nested SEQUENCEs in BER with indefinite lengths.
  Bytes deep;
  for (int i = 0; i < 100; ++i) deep.insert(deep.end(), {0x30, 0x80});
  for (int i = 0; i < 100; ++i) deep.insert(deep.end(), {0x00, 0x00});
  Parser p(Input(deep), Mode::kBer);
  Input whole;
  EXPECT_FALSE(p.ReadRawTLV(&whole));
  Limits wide;
  wide.max_depth = 200;
  Parser q(Input(deep), Mode::kBer, wide);
  EXPECT_TRUE(q.ReadRawTLV(&whole));
  Bytes der;
  EXPECT_FALSE(NormaliseToDer(Input(deep), &der));
  EXPECT_TRUE(der.empty());
}

TEST(DerOid, TextRoundTrips) {
  for (const char* text : {"2.5.29.35", "1.2.840.113549.1.1.11", "0.9.2342.19200300.100.1.25",
                           "1.3.36.3.3.2.8.1.1.14", "2.999.3", "1.2.250.1.223.101.256.1"}) {
    Bytes content;
    ASSERT_TRUE(OidFromText(text, &content)) << text;
    std::string back;
    ASSERT_TRUE(OidToText(Input(content), &back)) << text;
    EXPECT_EQ(back, text);
  }
  Bytes content;
  for (const char* bad : {"", "1", "3.1", "1.40", "1..2", "1.2.", "01.2", "1.2.x"}) {
    EXPECT_FALSE(OidFromText(bad, &content)) << bad;
  }
  std::string text;
  const Bytes non_minimal = {0x55, 0x80, 0x01};
  const Bytes truncated = {0x55, 0x81};
  EXPECT_FALSE(OidToText(Input(non_minimal), &text));
  EXPECT_FALSE(OidToText(Input(truncated), &text));
  EXPECT_FALSE(OidToText(Input(), &text));
}

TEST(DerWriter, LengthsAndNesting) {
  Writer w;
  w.Open(kSequence);
  w.AddInteger(0);
  w.AddInteger(128);
  Bytes big(300, 0xAB);
  w.AddTLV(kOctetString, Input(big));
  w.Open(ContextSpecificConstructed(3));
  ASSERT_TRUE(w.AddOid("1.2.840.113549.1.1.11"));
  w.Close();
  w.Close();
  const Bytes out = w.Take();
  EXPECT_TRUE(IsStrictDer(Input(out)));
  Parser p{Input(out)};
  Parser seq;
  ASSERT_TRUE(p.ReadSequence(&seq));
  uint64_t a, b;
  ASSERT_TRUE(seq.ReadUint64(&a));
  ASSERT_TRUE(seq.ReadUint64(&b));
  EXPECT_EQ(a, 0u);
  EXPECT_EQ(b, 128u);
  Input octets;
  ASSERT_TRUE(seq.Read(kOctetString, &octets));
  EXPECT_EQ(octets.size(), 300u);
}

TEST(DerNormalise, BerFormsBecomeDer) {
  struct Case {
    const char* name;
    Bytes ber;
    Bytes der;
  };
  const Case cases[] = {
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
  for (const auto& c : cases) {
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
