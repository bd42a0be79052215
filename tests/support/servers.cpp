#include "support/servers.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>

namespace quillon::testing {

bool TestServers::Load(const std::string& env_file, TestServers* out, std::string* error) {
  std::ifstream in(env_file);
  if (!in) {
    *error = "cannot open " + env_file;
    return false;
  }
  TestServers s;
  std::string line;
  for (int line_no = 1; std::getline(in, line); ++line_no) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.empty() || line.front() == '#') continue;
    const size_t eq = line.find('=');
    if (eq == std::string::npos || eq == 0) {
      *error = env_file + ":" + std::to_string(line_no) + ": not KEY=VALUE: " + line;
      return false;
    }
    s.values_[line.substr(0, eq)] = line.substr(eq + 1);
  }
  for (const char* key : {"HTTP_URL", "HTTPS_URL", "HTTPS_CA", "WWW"}) {
    if (s.Get(key).empty()) {
      *error = env_file + ": no " + key;
      return false;
    }
  }
  *out = std::move(s);
  return true;
}

std::string TestServers::Get(std::string_view key) const {
  auto it = values_.find(key);
  return it == values_.end() ? std::string() : it->second;
}

std::string TestServers::Join(std::string base, std::string_view path) {
  while (!base.empty() && base.back() == '/') base.pop_back();
  if (path.empty() || path.front() != '/') base += '/';
  return base.append(path);
}

std::string TestServers::PutFile(std::string_view relative, std::string_view bytes,
                                 std::time_t mtime) const {
  namespace fs = std::filesystem;
  const fs::path rel(relative);
  bool dotdot = false;
  for (const fs::path& part : rel) dotdot = dotdot || part == "..";
  if (relative.empty() || rel.is_absolute() || !rel.has_filename() || dotdot) {
    throw std::runtime_error("PutFile: not a relative path inside the root: '" +
                             std::string(relative) + "'");
  }
  const fs::path target = fs::path(Get("WWW")) / rel.lexically_normal();
  std::error_code ec;
  fs::create_directories(target.parent_path(), ec);
  if (ec) throw std::runtime_error("PutFile: cannot make " + target.parent_path().string());

  // Beside the target, then renamed over it: nginx may be serving the old
  // file to a parallel test and must never see a half-written new one.
  static std::atomic<unsigned> counter{0};
  const fs::path tmp = target.parent_path() /
                       ("." + target.filename().string() + "." + std::to_string(::getpid()) +
                        "." + std::to_string(counter.fetch_add(1)));
  std::ofstream(tmp, std::ios::binary | std::ios::trunc)
      .write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  const struct timespec times[2] = {{mtime, 0}, {mtime, 0}};
  const bool written = fs::file_size(tmp, ec) == bytes.size() && !ec &&
                       (mtime == 0 || ::utimensat(AT_FDCWD, tmp.c_str(), times, 0) == 0);
  if (written) fs::rename(tmp, target, ec);
  if (!written || ec) {
    fs::remove(tmp, ec);
    throw std::runtime_error("PutFile: cannot write " + target.string());
  }
  return "/" + rel.lexically_normal().generic_string();
}

const ServersLookup& LookUpServers() {
  static const ServersLookup lookup = [] {
    static TestServers servers;
    ServersLookup l;
    const char* file = std::getenv("QUILLON_SERVERS_ENV");
    if (file == nullptr || *file == '\0') {
      l.reason = "QUILLON_SERVERS_ENV is not set: the network tests need the servers CTest "
                 "starts (run them with ctest, e.g. `ctest -L net`)";
    } else if (std::string error; !TestServers::Load(file, &servers, &error)) {
      l.broken = true;
      l.reason = std::string("QUILLON_SERVERS_ENV=") + file + ": " + error +
                 " (did the servers_start fixture fail? see tests/servers/start.sh)";
    } else {
      l.servers = &servers;
    }
    return l;
  }();
  return lookup;
}

}  // namespace quillon::testing
