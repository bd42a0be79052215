// X500Time: an ASN.1 UTCTime or GeneralizedTime, kept as its text form, its
// tag, UTC seconds since 1970-01-01 and a microsecond fraction.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "quillon32/export.h"

class QUILLON32_API X500Time {
 public:
  static constexpr int kUTCTime = 23;
  static constexpr int kGeneralizedTime = 24;
  // The seconds value that means "no time".
  static constexpr int64_t kNoTime = -1;

  // The no-time value: text "999999999999", tag GeneralizedTime, seconds all ones.
  X500Time();
  // A time at |seconds| (UTC) with |fraction| microseconds, in the form |tag|
  // (kUTCTime or kGeneralizedTime); the text is rendered from the value.
  X500Time(int64_t seconds, uint32_t fraction = 0, int tag = kGeneralizedTime);

  // The current time (through the library's clock), as GeneralizedTime.
  static X500Time now();

  // Parses the content octets of a UTCTime (tag 23) or GeneralizedTime
  // (tag 24). False, value unchanged, on malformed text or a bad tag.
  bool fromContent(int tag, const unsigned char* content, size_t length);
  // Parses a whole UTCTime or GeneralizedTime element.
  bool decode(const unsigned char* der, size_t length);
  // The element in DER: the stored text under the stored tag.
  std::vector<unsigned char> encode() const;

  // Sets the value and renders the text in the form |tag|.
  void set(int64_t seconds, uint32_t fraction = 0, int tag = kGeneralizedTime);

  // Adds the given amounts to the UTC broken-down time and normalises.
  void add(int years, int months, int days, int hours, int minutes, int seconds);

  const char* text() const { return text_; }
  int tag() const { return tag_; }
  int64_t seconds() const { return seconds_; }
  uint32_t fraction() const { return fraction_; }
  bool isNoTime() const { return seconds_ == kNoTime; }

  // strftime of the UTC time ("" for the no-time value). Renderings used in
  // the library: "%b %d %H:%M:%S %Y GMT", "%y%m%d", "%Y%m%d".
  std::string format(const char* strftime_format) const;
  // strftime of the local time ("%x %H:%M:%S" for log time stamps).
  std::string formatLocal(const char* strftime_format) const;

  // Ordering by seconds, then by fraction.
  int compare(const X500Time& other) const;
  bool operator==(const X500Time& o) const { return compare(o) == 0; }
  bool operator!=(const X500Time& o) const { return compare(o) != 0; }
  bool operator<(const X500Time& o) const { return compare(o) < 0; }
  bool operator<=(const X500Time& o) const { return compare(o) <= 0; }
  bool operator>(const X500Time& o) const { return compare(o) > 0; }
  bool operator>=(const X500Time& o) const { return compare(o) >= 0; }

 private:
  void render();

  char text_[27];     // at most 26 characters and a terminator
  int tag_;           // kUTCTime or kGeneralizedTime
  int64_t seconds_;   // UTC seconds since the epoch; kNoTime for none
  uint32_t fraction_; // microseconds, below 1000000
};
