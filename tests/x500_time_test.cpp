// X500Time: reading and rendering UTCTime and GeneralizedTime, the calendar
// arithmetic against the C library's, ordering and field arithmetic. (The
// validity times of every PKITS certificate are walked in certificate_test.)
#include "quillon32/x500_time.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr int kUtc = X500Time::kUTCTime;
constexpr int kGen = X500Time::kGeneralizedTime;

bool Read(X500Time* t, int tag, const char* text) {
  return t->fromContent(tag, reinterpret_cast<const unsigned char*>(text), std::strlen(text));
}

X500Time Parse(int tag, const char* text) {
  X500Time t;
  EXPECT_TRUE(Read(&t, tag, text)) << text;
  return t;
}

// Rendered text reads back to the same value; UTCTime is used only within
// its window and has no fraction.
TEST(X500Time, RendersTextFromValue) {
  const struct { int64_t seconds; uint32_t fraction; int tag; const char* text; } kCases[] = {
      {2524607999, 0, kUtc, "491231235959Z"},          // last UTCTime second
      {-631152000, 0, kUtc, "500101000000Z"},          // first UTCTime second
      {2524608000, 0, kUtc, "20500101000000Z"},        // beyond UTCTime's window
      {0, 500000, kGen, "19700101000000.5Z"},
      {0, 2500000, kGen, "19700101000002.5Z"},         // whole seconds carried
      {253402300800, 0, kGen, "99991231235959Z"},      // saturated
      {X500Time::kNoTime, 0, kGen, "999999999999"},
  };
  for (const auto& c : kCases) {
    const X500Time t(c.seconds, c.fraction, c.tag);
    EXPECT_STREQ(t.text(), c.text) << c.seconds;
    EXPECT_EQ(t.tag(), std::strlen(c.text) == 13 ? kUtc : kGen) << c.text;
    const X500Time back = Parse(t.tag(), t.text());
    EXPECT_EQ(back.seconds(), t.seconds()) << c.text;
    EXPECT_EQ(back.fraction(), t.tag() == kGen ? t.fraction() : 0u) << c.text;
  }
  EXPECT_EQ(X500Time().format("%Y"), "");
}

// Read texts keep their text and tag, as received.
TEST(X500Time, ParsesTexts) {
  const struct { int tag; const char* text; int64_t seconds; uint32_t fraction; } kCases[] = {
      {kUtc, "0001010000Z", 946684800, 0},               // no seconds
      {kUtc, "000101000000+0100", 946684800 - 3600, 0},  // an hour ahead of UTC
      {kUtc, "991231230000-0100", 946684800, 0},         // across the century
      {kGen, "202001011200+0530", 1577860200, 0},
      {kGen, "19700101000000,123456789Z", 0, 123456},   // microseconds kept
      {kGen, "20231231235960Z", 1704067200, 0},          // leap second
      {kUtc, "999999999999", X500Time::kNoTime, 0},
  };
  for (const auto& c : kCases) {
    const X500Time t = Parse(c.tag, c.text);
    EXPECT_EQ(t.seconds(), c.seconds) << c.text;
    EXPECT_EQ(t.fraction(), c.fraction) << c.text;
    EXPECT_STREQ(t.text(), c.text);
    EXPECT_EQ(t.tag(), c.tag) << c.text;
    EXPECT_EQ(t.encode()[0], c.tag) << c.text;
  }
}

// Times are read by calendar arithmetic; it must count as the C library's
// UTC conversion does on every day of every four-digit year (one day in
// eleven, so that every month and day recurs) and on every 29 February, and
// refuse the days the calendar does not have.
TEST(X500Time, CalendarArithmeticMatchesTheLibraryConversion) {
  int checked = 0;
  for (int year = 0; year <= 9999; ++year) {
    for (int month = 1; month <= 12; ++month) {
      for (int day = 1; day <= 31; ++day) {
        if (!(month == 2 && day == 29) && (year * 372 + month * 31 + day) % 11 != 0) continue;
        char text[32];
        std::snprintf(text, sizeof(text), "%04d%02d%02d235960Z", year, month, day);
        X500Time t;
        const bool read = Read(&t, kGen, text);
        struct tm fields {};
        fields.tm_year = year - 1900;
        fields.tm_mon = month - 1;
        fields.tm_mday = day;
        const int64_t midnight = quillon::platform::FromUtc(&fields);
        ASSERT_EQ(read, fields.tm_mday == day && fields.tm_mon == month - 1) << text;
        if (!read) continue;
        ASSERT_EQ(t.seconds(), midnight + 86400) << text;  // 23:59:60 is the next midnight
        ++checked;
      }
    }
  }
  EXPECT_GT(checked, 300000);
}

TEST(X500Time, RejectsMalformedTextsAndElements) {
  const struct { int tag; const char* text; } kCases[] = {
      {kUtc, "491331000000Z"},     {kGen, "19000229000000Z"},   {kUtc, "491231240000Z"},
      {kUtc, "491231235961Z"},     {kUtc, "49123123595Z"},      {kUtc, "491231235959"},
      {kUtc, "491231235959Z "},    {kUtc, "491231235959+2400"}, {kUtc, "491231235959.5Z"},
      {kGen, "20200101000000.Z"},  {kGen, "202001011200.5Z"},
      {kGen, "20200101000000.1234567890123Z"},  // 27 characters
      {4, "20200101000000Z"},      {kGen, "99999999999"},
  };
  for (const auto& c : kCases) {
    X500Time t(1000, 0, kGen);
    EXPECT_FALSE(Read(&t, c.tag, c.text)) << c.text;
    EXPECT_STREQ(t.text(), "19700101001640Z") << c.text;
  }
  const Bytes octets = {0x04, 0x0D, '0', '0', '0', '1', '0', '1',
                        '0', '0', '0', '0', '0', '0', 'Z'};  // an OCTET STRING
  EXPECT_FALSE(X500Time().decode(octets.data(), octets.size()));
}

TEST(X500Time, AddNormalisesThroughUtcFields) {
  const struct { int tag; const char* start; int y, mo, d, h, mi, s; const char* out; } kCases[] = {
      {kGen, "20240131000000Z", 0, 1, 0, 0, 0, 0, "20240302000000Z"},  // 31 February
      {kUtc, "491231235959Z", 0, 0, 0, 0, 0, 1, "20500101000000Z"},  // leaves UTCTime's window
      {kUtc, "000101000000+0100", 0, 0, 0, 0, 0, 0, "991231230000Z"},  // re-rendered in UTC
  };
  for (const auto& c : kCases) {
    X500Time t = Parse(c.tag, c.start);
    t.add(c.y, c.mo, c.d, c.h, c.mi, c.s);
    EXPECT_STREQ(t.text(), c.out) << c.start;
  }
}

TEST(X500Time, OrderingBySecondsThenFraction) {
  const X500Time kAscending[] = {
      Parse(kUtc, "500101000000Z"),          Parse(kGen, "19700101000000Z"),
      Parse(kGen, "19700101000000.000001Z"), Parse(kUtc, "700101000001Z"),
  };
  const size_t n = std::size(kAscending);
  for (size_t i = 0; i < n; ++i) {
    for (size_t j = 0; j < n; ++j) {
      EXPECT_EQ(kAscending[i].compare(kAscending[j]), i < j ? -1 : (i > j ? 1 : 0)) << i << j;
    }
  }
  EXPECT_EQ(Parse(kUtc, "000101010000+0100"), Parse(kGen, "19991231230000-0100"));
}

TEST(X500Time, FormatsAndTheLibraryClock) {
  const X500Time t(951825600, 0, kGen);  // 2000-02-29 12:00:00 UTC
  EXPECT_EQ(t.format("%b %d %H:%M:%S %Y GMT"), "Feb 29 12:00:00 2000 GMT");
  const char* saved = std::getenv("TZ");
  const std::string old = saved ? saved : "";
  setenv("TZ", "QQQ-2", 1);  // two hours east of UTC, no daylight saving
  tzset();
  EXPECT_EQ(t.formatLocal("%H:%M"), "14:00");
  saved ? setenv("TZ", old.c_str(), 1) : unsetenv("TZ");
  tzset();

  quillon::platform::SetFixedTime(quillon::platform::WallTime{1234567890, 250000});
  const X500Time now = X500Time::now();
  quillon::platform::SetFixedTime(std::nullopt);
  EXPECT_STREQ(now.text(), "20090213233130.25Z");
}

}  // namespace
