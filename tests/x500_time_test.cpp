#include "quillon32/x500_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "pki/der.h"
#include "platform/clock.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kUtc = X500Time::kUTCTime;
constexpr int kGen = X500Time::kGeneralizedTime;

X500Time Parse(int tag, const char* text) {
  X500Time t;
  EXPECT_TRUE(t.fromContent(tag, reinterpret_cast<const unsigned char*>(text), std::strlen(text)))
      << text;
  return t;
}

TEST(X500Time, RendersTextFromValue) {
  const struct { int64_t seconds; uint32_t fraction; int tag; const char* text; int out_tag; } cases[] = {
      {2524607999, 0, kUtc, "491231235959Z", kUtc},           // last UTCTime second
      {-631152000, 0, kUtc, "500101000000Z", kUtc},           // first UTCTime second
      {2524608000, 0, kUtc, "20500101000000Z", kGen},         // beyond UTCTime's window
      {-631152001, 0, kUtc, "19491231235959Z", kGen},
      {951825600, 0, kUtc, "000229120000Z", kUtc},
      {0, 500000, kGen, "19700101000000.5Z", kGen},
      {0, 0, kGen, "19700101000000Z", kGen},
      {0, 1, kGen, "19700101000000.000001Z", kGen},
      {0, 2500000, kGen, "19700101000002.5Z", kGen},          // whole seconds carried
      {-30610224000, 0, kGen, "10000101000000Z", kGen},
      {253402300799, 0, kGen, "99991231235959Z", kGen},
      {253402300800, 0, kGen, "99991231235959Z", kGen},       // saturated
      {X500Time::kNoTime, 0, kGen, "999999999999", kGen},
  };
  for (const auto& c : cases) {
    const X500Time t(c.seconds, c.fraction, c.tag);
    EXPECT_STREQ(t.text(), c.text) << c.seconds;
    EXPECT_EQ(t.tag(), c.out_tag) << c.text;
    // What is rendered reads back to the same value (UTCTime has no fraction).
    const X500Time back = Parse(t.tag(), t.text());
    EXPECT_EQ(back.seconds(), t.seconds()) << c.text;
    if (t.tag() == kGen) {
      EXPECT_EQ(back.fraction(), t.fraction()) << c.text;
    }
  }
  EXPECT_STREQ(X500Time().text(), "999999999999");
  EXPECT_TRUE(X500Time().isNoTime());
  EXPECT_EQ(X500Time().format("%Y"), "");
}

TEST(X500Time, ParsesTexts) {
  const struct { int tag; const char* text; int64_t seconds; uint32_t fraction; } cases[] = {
      {kUtc, "500101000000Z", -631152000, 0},
      {kUtc, "491231235959Z", 2524607999, 0},
      {kUtc, "0001010000Z", 946684800, 0},                // no seconds
      {kUtc, "000101000000+0100", 946684800 - 3600, 0},   // one hour ahead of UTC
      {kUtc, "991231230000-0100", 946684800, 0},          // across the century
      {kUtc, "000229000000Z", 951782400, 0},
      {kGen, "20000229000000Z", 951782400, 0},
      {kGen, "19000228000000Z", -2203977600, 0},
      {kGen, "20500101120100Z", 2524651260, 0},
      {kGen, "99991231235959Z", 253402300799, 0},
      {kGen, "202001011200+0530", 1577860200, 0},
      {kGen, "19700101000000.5Z", 0, 500000},
      {kGen, "19700101000000,123456789Z", 0, 123456},   // truncated to microseconds
      {kGen, "19700101000000.000001Z", 0, 1},
      {kGen, "20231231235960Z", 1704067200, 0},           // leap second
      {kGen, "999999999999", X500Time::kNoTime, 0},
      {kUtc, "999999999999", X500Time::kNoTime, 0},
  };
  for (const auto& c : cases) {
    const X500Time t = Parse(c.tag, c.text);
    EXPECT_EQ(t.seconds(), c.seconds) << c.text;
    EXPECT_EQ(t.fraction(), c.fraction) << c.text;
    EXPECT_STREQ(t.text(), c.text);  // kept as received
    EXPECT_EQ(t.tag(), c.tag) << c.text;
  }
}

// Times are read by calendar arithmetic; it must count as the C library's
// UTC conversion does on every day of every four-digit year (sampled one day
// in eleven, so that every month and day of the month recurs) and on every
// 29 February.
TEST(X500Time, CalendarArithmeticMatchesTheLibraryConversion) {
  int checked = 0;
  for (int year = 0; year <= 9999; ++year) {
    for (int month = 1; month <= 12; ++month) {
      for (int day = 1; day <= 31; ++day) {
        const bool leap_day = month == 2 && day == 29;
        if (!leap_day && (year * 372 + month * 31 + day) % 11 != 0) continue;
        char text[32];
        std::snprintf(text, sizeof(text), "%04d%02d%02d235960Z", year, month, day);
        X500Time t;
        const bool read =
            t.fromContent(kGen, reinterpret_cast<const unsigned char*>(text), std::strlen(text));
        struct tm fields {};
        fields.tm_year = year - 1900;
        fields.tm_mon = month - 1;
        fields.tm_mday = day;
        fields.tm_hour = 23;
        fields.tm_min = 59;
        fields.tm_sec = 60;
        const int64_t expected = quillon::platform::FromUtc(&fields);
        // A day the calendar does not have is refused, not rolled over.
        struct tm date {};
        date.tm_year = year - 1900;
        date.tm_mon = month - 1;
        date.tm_mday = day;
        (void)quillon::platform::FromUtc(&date);
        ASSERT_EQ(read, date.tm_mday == day && date.tm_mon == month - 1) << text;
        if (read) {
          ASSERT_EQ(t.seconds(), expected) << text;
          ++checked;
        }
      }
    }
  }
  EXPECT_GT(checked, 300000);
}

TEST(X500Time, RejectsMalformedTexts) {
  const struct { int tag; const char* text; } cases[] = {
      {kUtc, "491331000000Z"},    {kUtc, "490132000000Z"},   {kUtc, "490431000000Z"},
      {kUtc, "010229000000Z"},    {kGen, "19000229000000Z"}, {kUtc, "491231240000Z"},
      {kUtc, "491231236000Z"},    {kUtc, "491231235961Z"},   {kUtc, "491200000000Z"},
      {kUtc, "49123123595Z"},     {kUtc, "491231235959"},    {kUtc, "491231235959z"},
      {kUtc, "491231235959Z "},   {kUtc, "4912312359590Z"},  {kUtc, "49123123595aZ"},
      {kUtc, "-91231235959Z"},    {kUtc, "491231235959+01"}, {kUtc, "491231235959+2400"},
      {kUtc, "491231235959+0060"}, {kUtc, "491231235959.5Z"}, {kGen, "20200101000000"},
      {kGen, "20200101000000.Z"}, {kGen, "2020010100Z"},     {kGen, "202001011200.5Z"},
      {kGen, "20200101000000.1234567890123Z"},  // 27 characters
      {kGen, ""},                 {4, "20200101000000Z"},    {kGen, "99999999999"},
  };
  for (const auto& c : cases) {
    X500Time t(1000, 0, kGen);
    EXPECT_FALSE(t.fromContent(c.tag, reinterpret_cast<const unsigned char*>(c.text),
                               std::strlen(c.text)))
        << c.text;
    EXPECT_EQ(t.seconds(), 1000) << c.text;
    EXPECT_STREQ(t.text(), "19700101001640Z") << c.text;
  }
}

// Validity times of real certificates: UTCTime in both centuries and
// GeneralizedTime before and after 2050. Each must re-encode to the bytes
// received and give the date that cert-facts.csv records.
TEST(X500Time, NistValidityTimesReencodeExactly) {
  const struct { const char* file; const char* not_before; const char* not_after; } cases[] = {
      {"GoodCACert.crt", "2010-01-01T08:30:00Z", "2030-12-31T08:30:00Z"},
      {"ValidGeneralizedTimenotAfterDateTest8EE.crt", "2010-01-01T08:30:00Z", "2050-01-01T12:01:00Z"},
      {"Validpre2000UTCnotBeforeDateTest3EE.crt", "1950-01-01T12:01:00Z", "2030-12-31T08:30:00Z"},
      {"ValidGeneralizedTimenotBeforeDateTest4EE.crt", "2002-01-01T12:01:00Z", "2030-12-31T08:30:00Z"},
      {"Invalidpre2000UTCEEnotAfterDateTest7EE.crt", "1997-01-01T12:01:00Z", "1999-01-01T12:01:00Z"},
  };
  for (const auto& c : cases) {
    std::ifstream in(std::string(QUILLON_TESTDATA_DIR) + "/nist-pkits/certs/" + c.file,
                     std::ios::binary);
    const Bytes file{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    using namespace quillon::der;
    Parser outer{Input(file.data(), file.size())}, cert, tbs, version, validity;
    bool present = false;
    Input not_before, not_after;
    // TBSCertificate: [0] version, serialNumber, signature, issuer, validity.
    ASSERT_TRUE(outer.ReadSequence(&cert) && cert.ReadSequence(&tbs) &&
                tbs.ReadOptionalConstructed(ContextSpecificConstructed(0), &version, &present) &&
                tbs.Skip(kInteger) && tbs.Skip(kSequence) && tbs.Skip(kSequence) &&
                tbs.ReadSequence(&validity) && validity.ReadRawTLV(&not_before) &&
                validity.ReadRawTLV(&not_after))
        << c.file;
    for (const auto& [raw, expected] : {std::pair{not_before, c.not_before}, {not_after, c.not_after}}) {
      X500Time t;
      ASSERT_TRUE(t.decode(raw.data(), raw.size())) << c.file;
      EXPECT_EQ(t.encode(), raw.ToVector()) << c.file << " " << t.text();
      EXPECT_EQ(t.format("%Y-%m-%dT%H:%M:%SZ"), expected) << c.file;
    }
  }
}

TEST(X500Time, DerElements) {
  EXPECT_EQ(X500Time().encode(),
            (Bytes{0x18, 0x0C, '9', '9', '9', '9', '9', '9', '9', '9', '9', '9', '9', '9'}));
  const Bytes bad[] = {
      {0x04, 0x0D, '0', '0', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z'},  // OCTET STRING
      {0x17, 0x81, 0x0D, '0', '0', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z'},  // long form
      {0x17, 0x0D, '0', '0', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z', 0x00},  // trailing
  };
  for (const auto& der : bad) EXPECT_FALSE(X500Time().decode(der.data(), der.size())) << der.size();
}

TEST(X500Time, AddNormalisesThroughUtcFields) {
  const struct { int tag; const char* start; int y, mo, d, h, mi, s; const char* text; } cases[] = {
      {kGen, "20240131000000Z", 0, 1, 0, 0, 0, 0, "20240302000000Z"},  // Feb 31 -> Mar 2 (leap year)
      {kGen, "20231231235959Z", 0, 0, 0, 0, 0, 1, "20240101000000Z"},
      {kGen, "20240229120000Z", 1, 0, 0, 0, 0, 0, "20250301120000Z"},
      {kGen, "20000101000000Z", 0, 0, -1, 0, 0, 0, "19991231000000Z"},
      {kGen, "19691231000000Z", 0, 0, 1, 0, 0, 0, "19700101000000Z"},
      {kGen, "20200101000000.25Z", 0, 0, 0, 1, 0, 0, "20200101010000.25Z"},
      {kGen, "20201231000000Z", 0, 13, 0, 0, -90, 0, "20220130223000Z"},
      {kUtc, "491231235959Z", 0, 0, 0, 0, 0, 1, "20500101000000Z"},  // leaves UTCTime's window
      {kUtc, "000101000000+0100", 0, 0, 0, 0, 0, 0, "991231230000Z"},  // re-rendered in UTC
      {kGen, "999999999999", 1, 0, 0, 0, 0, 0, "999999999999"},
  };
  for (const auto& c : cases) {
    X500Time t = Parse(c.tag, c.start);
    t.add(c.y, c.mo, c.d, c.h, c.mi, c.s);
    EXPECT_STREQ(t.text(), c.text) << c.start;
  }
}

TEST(X500Time, OrderingBySecondsThenFraction) {
  const X500Time ascending[] = {
      Parse(kUtc, "500101000000Z"), Parse(kGen, "19691231235958Z"), Parse(kGen, "19700101000000Z"),
      Parse(kGen, "19700101000000.000001Z"), Parse(kGen, "19700101000000.5Z"),
      Parse(kUtc, "700101000001Z"), Parse(kGen, "20500101000000Z"),
  };
  const size_t n = std::size(ascending);
  for (size_t i = 0; i < n; ++i) {
    for (size_t j = 0; j < n; ++j) {
      EXPECT_EQ(ascending[i].compare(ascending[j]), i < j ? -1 : (i > j ? 1 : 0)) << i << "," << j;
      EXPECT_EQ(ascending[i] <= ascending[j], i <= j);
      EXPECT_EQ(ascending[i] > ascending[j], i > j);
    }
  }
  // One instant in three forms.
  EXPECT_EQ(Parse(kUtc, "000101000000Z"), Parse(kGen, "20000101000000Z"));
  EXPECT_EQ(Parse(kUtc, "000101010000+0100"), Parse(kGen, "19991231230000-0100"));
}

TEST(X500Time, Renderings) {
  const X500Time t(951825600, 0, kGen);  // 2000-02-29 12:00:00 UTC
  EXPECT_EQ(t.format("%b %d %H:%M:%S %Y GMT"), "Feb 29 12:00:00 2000 GMT");
  EXPECT_EQ(t.format("%y%m%d"), "000229");
  EXPECT_EQ(t.format("%Y%m%d"), "20000229");

  const char* saved = std::getenv("TZ");
  const std::string old = saved ? saved : "";
  setenv("TZ", "QQQ-2", 1);  // two hours east of UTC, no daylight saving
  tzset();
  EXPECT_EQ(t.formatLocal("%H:%M"), "14:00");
  if (saved) setenv("TZ", old.c_str(), 1); else unsetenv("TZ");
  tzset();
}

TEST(X500Time, NowReadsTheLibraryClock) {
  quillon::platform::SetFixedTime(quillon::platform::WallTime{1234567890, 250000});
  const X500Time t = X500Time::now();
  quillon::platform::SetFixedTime(std::nullopt);
  EXPECT_EQ(t.tag(), kGen);
  EXPECT_STREQ(t.text(), "20090213233130.25Z");
  EXPECT_EQ(t.fraction(), 250000u);
}

}  // namespace
