// The real servers of the network tests, as the tests see them.
//
// CTest starts the servers once per run (tests/servers/start.sh, the fixture
// `servers_start`) and hands every test of quillon_net_tests the variable
// QUILLON_SERVERS_ENV naming the KEY=VALUE file start.sh wrote. Servers() reads
// that file once per process. Everything listens on 127.0.0.1 only.
//
// Typical use:
//
//   TEST(HttpFetch, Works) {
//     QUILLON_REQUIRE_SERVERS(servers);
//     std::string path = servers->PutFile("HttpFetch.Works/a.crl", der_bytes);
//     std::string url = servers->HttpUrl("/files" + path);  // Content-Type application/pkix-crl
//     ...
//   }
//
// The URL paths nginx serves a file under (/files, /nolm, /pdf, /chunked,
// /slow, /redirect, /stall, /status/NNN, ...) are listed at the top of
// tests/servers/start.sh.
//
// CTest may run tests in parallel (ctest -j), each in its own process, all
// sharing one document root: give every test files of its own, e.g. under a
// directory named after the test.
#ifndef QUILLON_TESTS_SUPPORT_SERVERS_H_
#define QUILLON_TESTS_SUPPORT_SERVERS_H_

#include <ctime>
#include <map>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

namespace quillon::testing {

class TestServers {
 public:
  // Reads the file start.sh wrote. On failure returns false and sets *error;
  // *out is then unspecified. Lines are KEY=VALUE, values taken verbatim;
  // blank lines and lines starting with '#' are ignored. The keys HTTP_PORT,
  // HTTPS_PORT, HTTP_URL, HTTPS_URL, HTTPS_CA, NGINX_PID and WWW must be there.
  [[nodiscard]] static bool Load(const std::string& env_file, TestServers* out,
                                 std::string* error);

  int http_port() const { return http_port_; }
  int https_port() const { return https_port_; }
  // "http://127.0.0.1:PORT" and "https://127.0.0.1:PORT", no trailing slash.
  const std::string& http_url() const { return http_url_; }
  const std::string& https_url() const { return https_url_; }
  // PEM file of the self-signed HTTPS certificate: the trust anchor to verify
  // the HTTPS port with (CN localhost, SAN DNS:localhost and IP:127.0.0.1).
  const std::string& https_ca() const { return https_ca_; }
  int nginx_pid() const { return nginx_pid_; }
  // Absolute path of the document root.
  const std::string& www() const { return www_; }

  // Any value of the file by key ("" if absent), for keys later servers add.
  std::string Get(std::string_view key) const;
  const std::map<std::string, std::string, std::less<>>& values() const { return values_; }

  // http_url() / https_url() followed by `path`; a missing leading '/' is added.
  std::string HttpUrl(std::string_view path) const;
  std::string HttpsUrl(std::string_view path) const;

  // Writes `bytes` to www()/relative, creating the directories on the way, and
  // returns the file's path under the root with a leading '/' (for
  // "a/b.crl": "/a/b.crl"), ready for HttpUrl("/files" + path). The file is
  // written to a temporary name and renamed, so the server never sends half of
  // it. If `mtime` is not 0, the file's modification time (Last-Modified) is
  // set to it (UTC seconds). `relative` must be relative and must not contain
  // "..": anything else, or an I/O error, throws std::runtime_error (which
  // fails the calling test).
  std::string PutFile(std::string_view relative, std::string_view bytes,
                      std::time_t mtime = 0) const;

 private:
  std::map<std::string, std::string, std::less<>> values_;
  int http_port_ = 0;
  int https_port_ = 0;
  int nginx_pid_ = 0;
  std::string http_url_, https_url_, https_ca_, www_;
};

// The servers of this test run, or nullptr when QUILLON_SERVERS_ENV is not set
// (the test binary was run by hand, outside CTest): tests then skip. If the
// variable is set but its file cannot be read or lacks a key, the fixture is
// broken: each call then also adds a (non-fatal) test failure that says why,
// so `if (!Servers()) GTEST_SKIP()` in a TEST body fails instead of skipping.
// In a fixture's SetUp() use QUILLON_REQUIRE_SERVERS: there a non-fatal
// failure would not stop the test body from running.
const TestServers* Servers();

// Servers() without the test failure: nullptr when unavailable for any reason.
const TestServers* FindServers();

// True when QUILLON_SERVERS_ENV is set but unusable (see Servers()).
bool ServersMisconfigured();

// Why the servers are unavailable, for a skip or failure message.
std::string ServersUnavailableReason();

}  // namespace quillon::testing

// In a TEST body or a fixture's SetUp(): declares `const TestServers* var`;
// when the servers are unavailable, skips the test (variable unset) or fails
// it fatally (fixture broken), with a message, and returns.
#define QUILLON_REQUIRE_SERVERS(var)                                              \
  const ::quillon::testing::TestServers* var = ::quillon::testing::FindServers(); \
  do {                                                                            \
    if (var == nullptr) {                                                         \
      if (::quillon::testing::ServersMisconfigured()) {                           \
        FAIL() << ::quillon::testing::ServersUnavailableReason();                 \
      }                                                                           \
      GTEST_SKIP() << ::quillon::testing::ServersUnavailableReason();             \
    }                                                                             \
  } while (false)

#endif  // QUILLON_TESTS_SUPPORT_SERVERS_H_
