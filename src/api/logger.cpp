#include "api/logger.h"

#include <cstring>

#include "platform/clock.h"
#include "platform/files.h"
#include "quillon32/x500_time.h"

namespace quillon::api {

void LogSetup::Configure(const char* ident, const char* log_file, const char* mail_server) {
  Configure(ident, mail_server);
  file_ = log_file ? log_file : "NUL";
}

void LogSetup::Configure(const char* ident, const char* mail_server) {
  ident_ = ident ? ident : "";
  mail_server_ = mail_server ? mail_server : "";
  counter_ = 0;
}

Logger* LogSetup::MakeLogger() {
  auto* logger = new Logger;
  logger->instance = ++counter_;
  return logger;
}

bool LogSetup::Rotate() const {
  const X500Time now = X500Time::now();
  return platform::RenameFile(file_, file_ + "." + now.formatLocal("%Y%m%d"));
}

void LogSetup::SetZoneLabel(const char* label) {
  zone_label_ = label ? std::string(label).substr(0, 20) : std::string();
}

namespace {

bool Compose(const char* format, const char* placeholder, const std::string& argument,
             std::string* line) {
  line->clear();
  if (!format) return false;
  const std::string_view f(format, strnlen(format, kLogLineMax));
  const size_t at = f.find(placeholder);
  if (at == std::string_view::npos) return false;
  auto append = [line](std::string_view piece) {
    line->append(piece.substr(0, kLogLineMax - std::min(kLogLineMax, line->size())));
  };
  append(f.substr(0, at));
  append(argument);
  append(std::string_view(format + at + 2));
  return true;
}

}  // namespace

bool ComposeWithText(const char* format, const char* argument, std::string* line) {
  return Compose(format, "%s", argument ? argument : "(null)", line);
}

bool ComposeWithNumber(const char* format, long number, std::string* line) {
  return Compose(format, "%d", std::to_string(number), line);
}

std::string TimeStamp(const LogSetup& setup) {
  const platform::WallTime now = platform::Now();
  const X500Time t(now.seconds, now.micros);
  std::string stamp = t.formatLocal("%x %H:%M:%S");
  if (t.fraction() != 0) {
    // The fraction as GeneralizedTime prints it: six digits, trailing zeros dropped.
    const char* text = t.text();
    const char* dot = std::strchr(text, '.');
    if (dot) stamp.append(dot, std::strlen(dot) - 1);  // without the closing "Z"
  }
  stamp += ' ';
  if (setup.zone_label().size() > 3) stamp += setup.zone_label().substr(3);
  if (stamp.size() > kLogStampMax) stamp.resize(kLogStampMax);
  return stamp;
}

void WriteLine(const LogSetup& setup, const Logger* logger, uint8_t level, const std::string& line) {
  if (!logger || level > logger->level) return;
  const std::string stamp = TimeStamp(setup);
  const std::string prefix = stamp + " " + setup.ident() + "[" +
                             std::to_string(platform::ProcessId()) + "." +
                             std::to_string(logger->instance) + "]: ";
  // Three writes on a freshly opened descriptor: prefix, line, line feed.
  platform::AppendToFile(setup.file(), {prefix, line, "\n"});
  if (level < 3) platform::AppendToFile("/dev/console", {prefix, line + "\n"});
}

}  // namespace quillon::api
