// The library's one source of "now".
//
// Freshness decisions (CRL nextUpdate, OCSP thisUpdate/nextUpdate, log time
// stamps) all read the clock through here, so that tests can pin it: most
// real-world CRLs and OCSP responses used in tests are long past their
// nextUpdate.
#pragma once

#include <cstdint>
#include <ctime>
#include <optional>

namespace quillon::platform {

// A point in time as UTC seconds since 1970-01-01 and a microsecond fraction.
struct WallTime {
  int64_t seconds = 0;
  uint32_t micros = 0;  // below 1'000'000
};

// The current time: the pinned time when one is set, otherwise the system clock.
WallTime Now();

// Pins the clock to |t|, or returns it to the system clock with std::nullopt.
// Meant for tests; not synchronised with concurrent readers.
void SetFixedTime(std::optional<WallTime> t);

// Breaks |seconds| down as UTC (gmtime) or local time; false when the value is
// outside what the C library can represent.
bool ToUtc(int64_t seconds, struct ::tm* out);
bool ToLocal(int64_t seconds, struct ::tm* out);
// Inverse of ToUtc (timegm): the fields are normalised as mktime would, in UTC.
int64_t FromUtc(struct ::tm* fields);

}  // namespace quillon::platform
