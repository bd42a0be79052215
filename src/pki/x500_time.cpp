// X500Time: ASN.1 UTCTime and GeneralizedTime.
//
// A time keeps the text it was read from (so that re-encoding reproduces the
// received element byte for byte) together with its value as UTC seconds and
// microseconds, which is what ordering and arithmetic use. Times made from a
// value render their text from it.
//
// Reading is lenient where real-world encoders are known to be sloppy and
// strict where a misreading would move the time:
//  - UTCTime: YYMMDDHHMM, optional SS, then "Z" or "+hhmm"/"-hhmm". YY below
//    50 is 20YY, otherwise 19YY (RFC 5280 4.1.2.5.1).
//  - GeneralizedTime: YYYYMMDDHHMM, optional SS, optional fraction of the
//    second ("." or "," then at least one digit; microseconds are kept, further
//    digits are dropped), then "Z" or an offset as for UTCTime. Local time
//    without "Z" or an offset is rejected: its instant is unknown.
//  - Offsets are applied to reach UTC; their hours run 00-23, minutes 00-59.
//  - A seconds field of 60 (a leap second) is accepted and counts as the first
//    second of the next minute; UTC seconds since the epoch have no leap second.
//  - Day-of-month is checked against the Gregorian calendar (1900-02-29 does
//    not exist, 2000-02-29 does).
//  - The text "999999999999" under either tag is the no-time value, as written
//    by encode() for it.

#include "quillon32/x500_time.h"

#include <cstdio>
#include <cstring>
#include <ctime>

#include "pki/der.h"
#include "platform/clock.h"

namespace {

constexpr char kNoTimeText[] = "999999999999";
constexpr size_t kMaxTextLength = 26;  // text_ holds 26 characters and a terminator

// The range a four-digit year can show: 0000-01-01T00:00:00Z to
// 9999-12-31T23:59:59Z. Values outside it are saturated when rendered.
constexpr int64_t kFirstSecond = -62167219200LL;
constexpr int64_t kLastSecond = 253402300799LL;
constexpr uint32_t kMicrosPerSecond = 1000000;

bool IsDigit(unsigned char c) { return c >= '0' && c <= '9'; }

// Reads |count| decimal digits at |*pos|.
bool ReadNumber(const unsigned char* p, size_t n, size_t* pos, size_t count, int* out) {
  if (n - *pos < count) return false;
  int v = 0;
  for (size_t k = 0; k < count; ++k) {
    const unsigned char c = p[*pos + k];
    if (!IsDigit(c)) return false;
    v = v * 10 + (c - '0');
  }
  *pos += count;
  *out = v;
  return true;
}

bool IsLeapYear(int year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

int DaysInMonth(int year, int month) {
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days from 1970-01-01 to a valid date of the proleptic Gregorian calendar
// (the calendar timegm counts in), by arithmetic: every certificate read
// parses two times, and the C library's conversion costs more than the rest
// of the read.
int64_t DaysFromCivil(int year, int month, int day) {
  const int64_t y = static_cast<int64_t>(year) - (month <= 2 ? 1 : 0);
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const int64_t year_of_era = y - era * 400;                                      // 0..399
  const int64_t day_of_year = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;  // 0..365
  const int64_t day_of_era = year_of_era * 365 + year_of_era / 4 - year_of_era / 100 + day_of_year;
  return era * 146097 + day_of_era - 719468;
}

// True when the |n| octets at |p|, 9 to 16 of them, are all decimal digits;
// two (overlapping) words at a time.
bool AllDigits(const unsigned char* p, size_t n) {
  constexpr uint64_t kZeros = 0x3030303030303030ull, kHighNibbles = 0xF0F0F0F0F0F0F0F0ull,
                     kSixes = 0x0606060606060606ull;
  const auto digits = [&](uint64_t w) {
    const uint64_t t = w ^ kZeros;  // digits become 0..9, with a zero high nibble
    return (t & kHighNibbles) == 0 && ((t + kSixes) & kHighNibbles) == 0;
  };
  uint64_t a, b;
  std::memcpy(&a, p, 8);
  std::memcpy(&b, p + n - 8, 8);
  return digits(a) && digits(b);
}

// The calendar checks and the count of seconds, for fields already read.
bool FinishTime(int year, int month, int day, int hour, int minute, int second, int64_t offset,
                uint32_t micros, int64_t* seconds, uint32_t* fraction) {
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month) || hour > 23 ||
      minute > 59 || second > 60) {
    return false;
  }
  // 60 seconds roll over into the next minute.
  *seconds = DaysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offset;
  *fraction = micros;
  return true;
}

// Parses UTCTime or GeneralizedTime text (see the rules at the top).
bool ParseTime(int tag, const unsigned char* p, size_t n, int64_t* seconds, uint32_t* fraction) {
  // Nearly every time in certificates and CRLs is "YYMMDDHHMMSSZ" or
  // "YYYYMMDDHHMMSSZ": read at once.
  const bool utc = tag == X500Time::kUTCTime;
  if (n == (utc ? 13u : 15u) && p[n - 1] == 'Z' && AllDigits(p, n - 1)) {
    const auto two = [p](size_t at) { return (p[at] - '0') * 10 + (p[at + 1] - '0'); };
    const size_t k = utc ? 2 : 4;
    const int year = utc ? (two(0) < 50 ? 2000 + two(0) : 1900 + two(0)) : two(0) * 100 + two(2);
    return FinishTime(year, two(k), two(k + 2), two(k + 4), two(k + 6), two(k + 8), 0, 0, seconds,
                      fraction);
  }
  size_t i = 0;
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
  if (tag == X500Time::kUTCTime) {
    int yy = 0;
    if (!ReadNumber(p, n, &i, 2, &yy)) return false;
    year = yy < 50 ? 2000 + yy : 1900 + yy;
  } else {
    if (!ReadNumber(p, n, &i, 4, &year)) return false;
  }
  if (!ReadNumber(p, n, &i, 2, &month) || !ReadNumber(p, n, &i, 2, &day) ||
      !ReadNumber(p, n, &i, 2, &hour) || !ReadNumber(p, n, &i, 2, &minute)) {
    return false;
  }
  uint32_t micros = 0;
  if (i < n && IsDigit(p[i])) {
    if (!ReadNumber(p, n, &i, 2, &second)) return false;
    if (tag == X500Time::kGeneralizedTime && i < n && (p[i] == '.' || p[i] == ',')) {
      ++i;
      size_t digits = 0;
      uint32_t scale = kMicrosPerSecond;
      for (; i < n && IsDigit(p[i]); ++i, ++digits) {
        if (scale > 1) {
          scale /= 10;
          micros += static_cast<uint32_t>(p[i] - '0') * scale;
        }
      }
      if (digits == 0) return false;
    }
  }

  int64_t offset = 0;
  if (i < n && p[i] == 'Z') {
    ++i;
  } else if (i < n && (p[i] == '+' || p[i] == '-')) {
    const bool ahead = p[i] == '+';
    ++i;
    int oh = 0, om = 0;
    if (!ReadNumber(p, n, &i, 2, &oh) || !ReadNumber(p, n, &i, 2, &om)) return false;
    if (oh > 23 || om > 59) return false;
    // Local time = UTC + offset, so UTC = local time - offset.
    offset = (ahead ? 1 : -1) * (static_cast<int64_t>(oh) * 3600 + om * 60);
  } else {
    return false;
  }
  if (i != n) return false;
  return FinishTime(year, month, day, hour, minute, second, offset, micros, seconds, fraction);
}

// Adds |delta| to a broken-down field, kept within a range that timegm can
// normalise without overflowing (about a billion units either way).
int AddField(int field, int delta) {
  constexpr int64_t kLimit = 1000000000;
  int64_t sum = static_cast<int64_t>(field) + delta;
  if (sum > kLimit) sum = kLimit;
  if (sum < -kLimit) sum = -kLimit;
  return static_cast<int>(sum);
}

// strftime into a string, growing the buffer for long formats. An empty
// result is indistinguishable from an overflow, so growth stops at 4 KiB.
std::string Strftime(const char* format, const struct tm& fields) {
  if (format == nullptr || format[0] == '\0') return {};
  for (size_t size = 256; size <= 4096; size *= 4) {
    std::string out(size, '\0');
    const size_t written = std::strftime(out.data(), out.size(), format, &fields);
    if (written > 0) {
      out.resize(written);
      return out;
    }
  }
  return {};
}

}  // namespace

X500Time::X500Time() : tag_(kGeneralizedTime), seconds_(kNoTime), fraction_(0) {
  std::memcpy(text_, kNoTimeText, sizeof(kNoTimeText));
}

X500Time::X500Time(int64_t seconds, uint32_t fraction, int tag) : text_{}, tag_(kGeneralizedTime),
    seconds_(kNoTime), fraction_(0) {
  set(seconds, fraction, tag);
}

X500Time X500Time::now() {
  const quillon::platform::WallTime t = quillon::platform::Now();
  return X500Time(t.seconds, t.micros, kGeneralizedTime);
}

bool X500Time::fromContent(int tag, const unsigned char* content, size_t length) {
  if (tag != kUTCTime && tag != kGeneralizedTime) return false;
  if (content == nullptr || length == 0 || length > kMaxTextLength) return false;
  int64_t seconds = kNoTime;
  uint32_t fraction = 0;
  const bool no_time =
      length == sizeof(kNoTimeText) - 1 && std::memcmp(content, kNoTimeText, length) == 0;
  if (!no_time && !ParseTime(tag, content, length, &seconds, &fraction)) return false;
  std::memcpy(text_, content, length);
  text_[length] = '\0';
  tag_ = tag;
  seconds_ = seconds;
  fraction_ = fraction;
  return true;
}

bool X500Time::decode(const unsigned char* der, size_t length) {
  if (der == nullptr) return false;
  quillon::der::Parser parser(quillon::der::Input(der, length));
  quillon::der::Tag tag = 0;
  quillon::der::Input content;
  if (!parser.ReadTagAndValue(&tag, &content) || parser.HasMore()) return false;
  if (tag == quillon::der::kUtcTime) return fromContent(kUTCTime, content.data(), content.size());
  if (tag == quillon::der::kGeneralizedTime) {
    return fromContent(kGeneralizedTime, content.data(), content.size());
  }
  return false;
}

std::vector<unsigned char> X500Time::encode() const {
  const size_t length = std::strlen(text_);
  std::vector<unsigned char> out;
  quillon::der::AppendHeader(
      tag_ == kUTCTime ? quillon::der::kUtcTime : quillon::der::kGeneralizedTime, length, &out);
  out.insert(out.end(), text_, text_ + length);
  return out;
}

void X500Time::set(int64_t seconds, uint32_t fraction, int tag) {
  tag_ = tag == kUTCTime ? kUTCTime : kGeneralizedTime;
  if (seconds == kNoTime && fraction < kMicrosPerSecond) {
    seconds_ = kNoTime;
    fraction_ = 0;
  } else if (seconds < kFirstSecond) {
    seconds_ = kFirstSecond;
    fraction_ = 0;
  } else if (seconds > kLastSecond) {
    seconds_ = kLastSecond;
    fraction_ = 0;
  } else {
    // A fraction of a second or more carries into the seconds.
    seconds_ = seconds + fraction / kMicrosPerSecond;
    fraction_ = fraction % kMicrosPerSecond;
    if (seconds_ > kLastSecond) {
      seconds_ = kLastSecond;
      fraction_ = 0;
    }
  }
  render();
}

// Renders text_ from the value. UTCTime can only show 1950-2049 (its two-digit
// years are read back into that window); outside it the GeneralizedTime form
// is used, as RFC 5280 requires. UTCTime has no fraction; the value keeps it.
void X500Time::render() {
  struct tm t {};
  if (seconds_ == kNoTime || !quillon::platform::ToUtc(seconds_, &t)) {
    seconds_ = kNoTime;
    fraction_ = 0;
    std::memcpy(text_, kNoTimeText, sizeof(kNoTimeText));
    return;
  }
  const int year = t.tm_year + 1900;
  if (tag_ == kUTCTime && (year < 1950 || year > 2049)) tag_ = kGeneralizedTime;

  char buf[64];
  int len = 0;
  if (tag_ == kUTCTime) {
    len = std::snprintf(buf, sizeof(buf), "%02d%02d%02d%02d%02d%02dZ", year % 100, t.tm_mon + 1,
                        t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
  } else {
    len = std::snprintf(buf, sizeof(buf), "%04d%02d%02d%02d%02d%02d", year, t.tm_mon + 1,
                        t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
    if (len > 0 && fraction_ != 0) {
      const int f = std::snprintf(buf + len, sizeof(buf) - static_cast<size_t>(len), ".%.6ld",
                                  static_cast<long>(fraction_));
      if (f > 0) len += f;
      while (buf[len - 1] == '0') --len;  // the fraction is non-zero: a digit stays
    }
    if (len > 0 && static_cast<size_t>(len) + 1 < sizeof(buf)) buf[len++] = 'Z';
  }
  if (len <= 0 || static_cast<size_t>(len) > kMaxTextLength) {
    std::memcpy(text_, kNoTimeText, sizeof(kNoTimeText));
    seconds_ = kNoTime;
    fraction_ = 0;
    return;
  }
  std::memcpy(text_, buf, static_cast<size_t>(len));
  text_[len] = '\0';
}

void X500Time::add(int years, int months, int days, int hours, int minutes, int seconds) {
  if (isNoTime()) return;
  struct tm t {};
  if (!quillon::platform::ToUtc(seconds_, &t)) return;
  t.tm_year = AddField(t.tm_year, years);
  t.tm_mon = AddField(t.tm_mon, months);
  t.tm_mday = AddField(t.tm_mday, days);
  t.tm_hour = AddField(t.tm_hour, hours);
  t.tm_min = AddField(t.tm_min, minutes);
  t.tm_sec = AddField(t.tm_sec, seconds);
  t.tm_isdst = 0;
  set(quillon::platform::FromUtc(&t), fraction_, tag_);
}

std::string X500Time::format(const char* strftime_format) const {
  struct tm t {};
  if (isNoTime() || !quillon::platform::ToUtc(seconds_, &t)) return {};
  return Strftime(strftime_format, t);
}

std::string X500Time::formatLocal(const char* strftime_format) const {
  struct tm t {};
  if (isNoTime() || !quillon::platform::ToLocal(seconds_, &t)) return {};
  return Strftime(strftime_format, t);
}

int X500Time::compare(const X500Time& other) const {
  if (seconds_ != other.seconds_) return seconds_ < other.seconds_ ? -1 : 1;
  if (fraction_ != other.fraction_) return fraction_ < other.fraction_ ? -1 : 1;
  return 0;
}
