// The real servers of the network tests, as the tests see them. CTest starts
// them once per run (tests/servers/start.sh, the fixture `servers_start`) and
// gives every test of quillon_net_tests QUILLON_SERVERS_ENV, the KEY=VALUE
// file start.sh wrote (read once per process). All listen on 127.0.0.1 only.
//
//   TEST_F(HttpFetch, Works) {
//     QUILLON_REQUIRE_SERVERS(servers);
//     std::string path = servers->PutFile("HttpFetch.Works/a.crl", der_bytes);
//     Fetch(servers->HttpUrl("/files" + path));  // paths: see start.sh
//   }
//
// Tests may run in parallel, sharing one document root: give each test files
// of its own, e.g. under a directory named after the test.
#ifndef QUILLON_TESTS_SUPPORT_SERVERS_H_
#define QUILLON_TESTS_SUPPORT_SERVERS_H_

#include <gtest/gtest.h>

#include <ctime>
#include <map>
#include <string>
#include <string_view>

namespace quillon::testing {

class TestServers {
 public:
  // Reads the file start.sh wrote: KEY=VALUE lines, values verbatim, blank
  // lines and '#' comments ignored. HTTP_URL, HTTPS_URL, HTTPS_CA and WWW
  // must be there. False, with *error set, otherwise.
  [[nodiscard]] static bool Load(const std::string& env_file, TestServers* out,
                                 std::string* error);

  // Any value by key ("" if absent), for the keys each server adds.
  std::string Get(std::string_view key) const;

  // "http(s)://127.0.0.1:PORT" followed by |path|; a missing leading '/' is added.
  std::string HttpUrl(std::string_view path) const { return Join(Get("HTTP_URL"), path); }
  std::string HttpsUrl(std::string_view path) const { return Join(Get("HTTPS_URL"), path); }
  // PEM of the self-signed HTTPS certificate (DNS:localhost, IP:127.0.0.1):
  // the one trust anchor to verify the HTTPS port with.
  std::string https_ca() const { return Get("HTTPS_CA"); }

  // Writes |bytes| to WWW/|relative| (directories made on the way; written
  // aside and renamed, so the server never sends half of it) and returns its
  // path under the root with a leading '/', ready for HttpUrl("/files" + path).
  // A non-zero |mtime| becomes the file's time (Last-Modified). |relative|
  // must be relative and free of "..": otherwise, or on an I/O error, throws
  // std::runtime_error, which fails the calling test.
  std::string PutFile(std::string_view relative, std::string_view bytes,
                      std::time_t mtime = 0) const;

 private:
  static std::string Join(std::string base, std::string_view path);
  std::map<std::string, std::string, std::less<>> values_;
};

// The outcome of this process's one look at QUILLON_SERVERS_ENV.
struct ServersLookup {
  const TestServers* servers = nullptr;  // null when unavailable
  bool broken = false;  // the variable is set but its file is unusable: a failure, not a skip
  std::string reason;   // why unavailable
};
const ServersLookup& LookUpServers();

}  // namespace quillon::testing

// In a TEST body or a fixture's SetUp(): declares `const TestServers* var`.
// Without servers (the binary run by hand, outside CTest) the test is
// skipped; with a broken fixture it fails. Either way it returns.
#define QUILLON_REQUIRE_SERVERS(var)                                                          \
  const ::quillon::testing::TestServers* var = ::quillon::testing::LookUpServers().servers;  \
  do {                                                                                        \
    if (var == nullptr) {                                                                     \
      const ::quillon::testing::ServersLookup& lookup = ::quillon::testing::LookUpServers(); \
      if (lookup.broken) FAIL() << lookup.reason;                                             \
      GTEST_SKIP() << lookup.reason;                                                          \
    }                                                                                         \
  } while (false)

#endif  // QUILLON_TESTS_SUPPORT_SERVERS_H_
