// The library's log: catalogue texts in the current language, one line per
// call, appended to one shared file that is opened and closed for every line
// so that several processes and contexts can share it and an external
// rotation takes effect at once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace quillon::api {

// Bounds of the composed line and of the time stamp.
inline constexpr size_t kLogLineMax = 1024;
inline constexpr size_t kLogStampMax = 64;

// A context's logger.
struct Logger {
  uint8_t level = 6;          // 0..7, 7 most verbose
  std::string mail_from;      // first mail address ("" = none)
  std::string mail_to;        // second mail address
  int32_t mail_port = 0;
  uint32_t instance = 0;      // the logger counter after this logger was made
};

// Process-wide log settings: identity, file, mail server and the counter
// that numbers loggers.
class LogSetup {
 public:
  // Stores copies of the identity, log file (null: "NUL", the null device)
  // and mail server; resets the logger counter.
  void Configure(const char* ident, const char* log_file, const char* mail_server);
  // Replaces only identity and mail server; resets the counter.
  void Configure(const char* ident, const char* mail_server);

  // A new logger at level 6 with the next instance number.
  Logger* MakeLogger();

  const std::string& ident() const { return ident_; }
  const std::string& file() const { return file_; }
  const std::string& mail_server() const { return mail_server_; }
  uint32_t counter() const { return counter_; }

  // Renames the log file to its path + "." + the local date "%Y%m%d".
  bool Rotate() const;

  // The zone label of time stamps: at most 20 characters, of which the first
  // three are skipped when printed. Empty by default.
  void SetZoneLabel(const char* label);
  const std::string& zone_label() const { return zone_label_; }

  // The delivery point for urgent (level 2) lines when a mail server is set.
  // The library ships no mail client: an embedding program that wants these
  // lines mailed installs a hook here; by default they are not sent.
  using MailHook = std::function<void(const std::string& server, int port, const std::string& from,
                                      const std::string& to, const std::string& line)>;
  void SetMailHook(MailHook hook) { mail_hook_ = std::move(hook); }
  const MailHook& mail_hook() const { return mail_hook_; }

 private:
  std::string ident_;
  std::string file_ = "NUL";
  std::string mail_server_;
  uint32_t counter_ = 0;
  std::string zone_label_;
  MailHook mail_hook_;
};

// Line composition (at most kLogLineMax characters).
// One text argument: the format up to its first "%s", the argument, the rest
// of the format; false (write nothing) when the first kLogLineMax characters
// of the format hold no "%s".
bool ComposeWithText(const char* format, const char* argument, std::string* line);
// One integer argument, the same with the first "%d".
bool ComposeWithNumber(const char* format, long number, std::string* line);

// "%x %H:%M:%S" of the current local time, "." and the fraction digits when
// the time has a fraction, a blank, and the zone label from its fourth
// character on.
std::string TimeStamp(const LogSetup& setup);

// Writes |line| through |logger| at |level| (dropped above the logger's level):
// prefix "<stamp> <ident>[<pid>.<instance>]: ", the line and a line feed to
// the log file; below level 3 also to the console.
void WriteLine(const LogSetup& setup, const Logger* logger, uint8_t level, const std::string& line);

}  // namespace quillon::api
