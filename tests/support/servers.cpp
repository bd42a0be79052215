#include "support/servers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace quillon::testing {
namespace {

constexpr const char* kEnvVar = "QUILLON_SERVERS_ENV";

bool ParsePort(const std::string& text, int* out) {
  int value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || value <= 0 || value > 65535) return false;
  *out = value;
  return true;
}

bool ParsePid(const std::string& text, int* out) {
  int value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || value <= 1) return false;
  *out = value;
  return true;
}

std::string JoinUrl(const std::string& base, std::string_view path) {
  std::string url = base;
  if (path.empty() || path.front() != '/') url += '/';
  url += path;
  return url;
}

// The state of this process's one look at QUILLON_SERVERS_ENV.
struct Loaded {
  bool available = false;
  bool broken = false;  // the variable is set, but its file is unusable
  std::string reason;
  TestServers servers;
};

const Loaded& LoadOnce() {
  static const Loaded loaded = [] {
    Loaded l;
    const char* file = std::getenv(kEnvVar);
    if (file == nullptr || *file == '\0') {
      l.reason = std::string(kEnvVar) +
                 " is not set: the network tests need the servers CTest starts "
                 "(run them with ctest, e.g. `ctest -L net`)";
      return l;
    }
    std::string error;
    if (!TestServers::Load(file, &l.servers, &error)) {
      l.broken = true;
      l.reason = std::string(kEnvVar) + "=" + file + ": " + error +
                 " (did the servers_start fixture fail? see tests/servers/start.sh)";
      return l;
    }
    l.available = true;
    return l;
  }();
  return loaded;
}

}  // namespace

bool TestServers::Load(const std::string& env_file, TestServers* out, std::string* error) {
  std::ifstream in(env_file);
  if (!in) {
    *error = "cannot open " + env_file;
    return false;
  }
  TestServers s;
  std::string line;
  int line_no = 0;
  while (std::getline(in, line)) {
    ++line_no;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line.front() == '#') continue;
    const size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) {
      *error = env_file + ":" + std::to_string(line_no) + ": not KEY=VALUE: " + line;
      return false;
    }
    s.values_[line.substr(0, eq)] = line.substr(eq + 1);
  }
  for (const char* key :
       {"HTTP_PORT", "HTTPS_PORT", "HTTP_URL", "HTTPS_URL", "HTTPS_CA", "NGINX_PID", "WWW"}) {
    if (s.Get(key).empty()) {
      *error = env_file + ": no " + key;
      return false;
    }
  }
  if (!ParsePort(s.Get("HTTP_PORT"), &s.http_port_) ||
      !ParsePort(s.Get("HTTPS_PORT"), &s.https_port_)) {
    *error = env_file + ": bad HTTP_PORT or HTTPS_PORT";
    return false;
  }
  if (!ParsePid(s.Get("NGINX_PID"), &s.nginx_pid_)) {
    *error = env_file + ": bad NGINX_PID";
    return false;
  }
  s.http_url_ = s.Get("HTTP_URL");
  s.https_url_ = s.Get("HTTPS_URL");
  s.https_ca_ = s.Get("HTTPS_CA");
  s.www_ = s.Get("WWW");
  while (s.http_url_.size() > 1 && s.http_url_.back() == '/') s.http_url_.pop_back();
  while (s.https_url_.size() > 1 && s.https_url_.back() == '/') s.https_url_.pop_back();
  if (!std::filesystem::is_directory(s.www_)) {
    *error = env_file + ": WWW " + s.www_ + " is not a directory";
    return false;
  }
  *out = std::move(s);
  return true;
}

std::string TestServers::Get(std::string_view key) const {
  auto it = values_.find(key);
  return it == values_.end() ? std::string() : it->second;
}

std::string TestServers::HttpUrl(std::string_view path) const { return JoinUrl(http_url_, path); }

std::string TestServers::HttpsUrl(std::string_view path) const {
  return JoinUrl(https_url_, path);
}

std::string TestServers::PutFile(std::string_view relative, std::string_view bytes,
                                 std::time_t mtime) const {
  namespace fs = std::filesystem;
  const fs::path rel(relative);
  if (relative.empty() || rel.is_absolute() || !rel.has_filename()) {
    throw std::runtime_error("PutFile: not a relative file path: '" + std::string(relative) + "'");
  }
  for (const fs::path& part : rel) {
    if (part == "..") {
      throw std::runtime_error("PutFile: '..' in '" + std::string(relative) + "'");
    }
  }
  const fs::path target = fs::path(www_) / rel.lexically_normal();
  std::error_code ec;
  fs::create_directories(target.parent_path(), ec);
  if (ec) {
    throw std::runtime_error("PutFile: cannot make " + target.parent_path().string() + ": " +
                             ec.message());
  }

  // Write beside the target, then rename over it: nginx may be serving the old
  // file to a parallel test, and must never see a half-written new one.
  static std::atomic<unsigned> counter{0};
  const fs::path tmp = target.parent_path() / ("." + target.filename().string() + ".tmp." +
                                               std::to_string(::getpid()) + "." +
                                               std::to_string(counter.fetch_add(1)));
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) {
      fs::remove(tmp, ec);
      throw std::runtime_error("PutFile: cannot write " + tmp.string());
    }
  }
  if (mtime != 0) {
    const struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
    if (::utimensat(AT_FDCWD, tmp.c_str(), times, 0) != 0) {
      fs::remove(tmp, ec);
      throw std::runtime_error("PutFile: cannot set the time of " + tmp.string());
    }
  }
  fs::rename(tmp, target, ec);
  if (ec) {
    fs::remove(tmp, ec);
    throw std::runtime_error("PutFile: cannot rename to " + target.string() + ": " +
                             ec.message());
  }
  return "/" + rel.lexically_normal().generic_string();
}

const TestServers* FindServers() {
  const Loaded& loaded = LoadOnce();
  return loaded.available ? &loaded.servers : nullptr;
}

const TestServers* Servers() {
  const Loaded& loaded = LoadOnce();
  if (loaded.broken) ADD_FAILURE() << loaded.reason;
  return FindServers();
}

bool ServersMisconfigured() { return LoadOnce().broken; }

std::string ServersUnavailableReason() { return LoadOnce().reason; }

}  // namespace quillon::testing
