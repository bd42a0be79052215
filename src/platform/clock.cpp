#include "platform/clock.h"

#include <ctime>
#include <sys/time.h>

namespace quillon::platform {
namespace {
std::optional<WallTime>& Pinned() {
  static std::optional<WallTime> pinned;
  return pinned;
}
}  // namespace

WallTime Now() {
  if (Pinned()) return *Pinned();
  struct timeval tv {};
  ::gettimeofday(&tv, nullptr);
  return WallTime{static_cast<int64_t>(tv.tv_sec), static_cast<uint32_t>(tv.tv_usec)};
}

void SetFixedTime(std::optional<WallTime> t) { Pinned() = t; }

bool ToUtc(int64_t seconds, struct ::tm* out) {
  time_t t = static_cast<time_t>(seconds);
  return ::gmtime_r(&t, out) != nullptr;
}

bool ToLocal(int64_t seconds, struct ::tm* out) {
  time_t t = static_cast<time_t>(seconds);
  return ::localtime_r(&t, out) != nullptr;
}

int64_t FromUtc(struct ::tm* fields) { return static_cast<int64_t>(::timegm(fields)); }

}  // namespace quillon::platform
