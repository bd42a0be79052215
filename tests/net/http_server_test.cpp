// Proof that the real-server fixture works: nginx, started by
// tests/servers/start.sh, serves over HTTP and HTTPS the files a test puts in
// its document root, with the behaviours the network tests rely on. It fetches
// with libcurl directly (the library's own transfer code is tested elsewhere)
// and talks to 127.0.0.1 only.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/servers.h"

namespace quillon::testing {
namespace {

struct Options {
  bool follow = false;                // follow redirects, at most max_redirs
  long max_redirs = 5;
  std::vector<std::string> headers;   // extra request headers, "Name: value"
  std::vector<std::string> resolve;   // CURLOPT_RESOLVE entries, "host:port:127.0.0.1"
  long time_condition = CURL_TIMECOND_NONE;
  std::time_t time_value = 0;
  long timeout_ms = 20000;
};

// Options with one thing set (GCC warns on partly designated initializers).
Options Follow(long max_redirs = 5) {
  Options o;
  o.follow = true;
  o.max_redirs = max_redirs;
  return o;
}
Options WithHeader(std::string header) {
  Options o;
  o.headers.push_back(std::move(header));
  return o;
}
Options PinnedTo127(const std::string& host, int port) {
  Options o;
  o.resolve.push_back(host + ":" + std::to_string(port) + ":127.0.0.1");
  return o;
}
Options IfModifiedSince(std::time_t t) {
  Options o;
  o.time_condition = CURL_TIMECOND_IFMODSINCE;
  o.time_value = t;
  return o;
}
Options TimeoutMs(long ms) {
  Options o;
  o.timeout_ms = ms;
  return o;
}

struct Response {
  CURLcode code = CURLE_OK;
  std::string error;
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  // of the last response; names in lower case
  std::string effective_url;
  long redirects = 0;
  long condition_unmet = 0;
  double seconds = 0;

  std::string Header(const std::string& lower_name) const {
    auto it = headers.find(lower_name);
    return it == headers.end() ? std::string() : it->second;
  }
  bool Has(const std::string& lower_name) const { return headers.count(lower_name) != 0; }
};

size_t OnBody(char* data, size_t size, size_t n, void* user) {
  static_cast<Response*>(user)->body.append(data, size * n);
  return size * n;
}

size_t OnHeader(char* data, size_t size, size_t n, void* user) {
  auto* r = static_cast<Response*>(user);
  std::string_view line(data, size * n);
  while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.remove_suffix(1);
  if (line.substr(0, 5) == "HTTP/") {
    r->headers.clear();  // a new response (after a redirect): keep the last one's only
    return size * n;
  }
  const size_t colon = line.find(':');
  if (colon == std::string_view::npos) return size * n;
  std::string name(line.substr(0, colon));
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  std::string_view value = line.substr(colon + 1);
  while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
  r->headers[name] = std::string(value);
  return size * n;
}

// Only URLs on 127.0.0.1, or on a name pinned to 127.0.0.1 through `resolve`.
bool OnLoopback(const std::string& url, const Options& opts) {
  if (url.rfind("http://127.0.0.1:", 0) == 0 || url.rfind("https://127.0.0.1:", 0) == 0) {
    return true;
  }
  if (opts.resolve.empty()) return false;
  const std::string_view suffix = ":127.0.0.1";
  return std::all_of(opts.resolve.begin(), opts.resolve.end(), [&](const std::string& e) {
    return e.size() > suffix.size() && e.compare(e.size() - suffix.size(), suffix.size(),
                                                 suffix) == 0;
  });
}

Response Get(const TestServers& servers, const std::string& url, const Options& opts = {}) {
  Response r;
  if (!OnLoopback(url, opts)) {
    ADD_FAILURE() << "refusing a non-loopback URL: " << url;
    r.code = CURLE_URL_MALFORMAT;
    return r;
  }
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    ADD_FAILURE() << "curl_easy_init failed";
    r.code = CURLE_FAILED_INIT;
    return r;
  }
  char errbuf[CURL_ERROR_SIZE] = {};
  curl_slist* headers = nullptr;
  for (const auto& h : opts.headers) headers = curl_slist_append(headers, h.c_str());
  curl_slist* resolve = nullptr;
  for (const auto& e : opts.resolve) resolve = curl_slist_append(resolve, e.c_str());

  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errbuf);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");     // never through a proxy from the environment
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, opts.timeout_ms);
  // Trust our self-signed certificate and nothing else.
  curl_easy_setopt(curl, CURLOPT_CAINFO, servers.https_ca().c_str());
  curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, opts.follow ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, opts.max_redirs);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &r);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, OnHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &r);
  if (headers != nullptr) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  if (resolve != nullptr) curl_easy_setopt(curl, CURLOPT_RESOLVE, resolve);
  if (opts.time_condition != CURL_TIMECOND_NONE) {
    curl_easy_setopt(curl, CURLOPT_TIMECONDITION, opts.time_condition);
    curl_easy_setopt(curl, CURLOPT_TIMEVALUE_LARGE, static_cast<curl_off_t>(opts.time_value));
  }

  const auto start = std::chrono::steady_clock::now();
  r.code = curl_easy_perform(curl);
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  r.error = errbuf[0] != '\0' ? errbuf : curl_easy_strerror(r.code);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_easy_getinfo(curl, CURLINFO_REDIRECT_COUNT, &r.redirects);
  curl_easy_getinfo(curl, CURLINFO_CONDITION_UNMET, &r.condition_unmet);
  char* effective = nullptr;
  curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &effective);
  if (effective != nullptr) r.effective_url = effective;

  curl_slist_free_all(headers);
  curl_slist_free_all(resolve);
  curl_easy_cleanup(curl);
  return r;
}

// Bytes with every octet value, NULs included, so nothing is taken for text.
std::string BinaryBytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + 3) & 0xff);
  return s;
}

// 2023-11-14 22:13:20 UTC.
constexpr std::time_t kMtime = 1700000000;
constexpr const char* kMtimeHttp = "Tue, 14 Nov 2023 22:13:20 GMT";

class HttpServerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  static void TearDownTestSuite() { curl_global_cleanup(); }

  void SetUp() override {
    QUILLON_REQUIRE_SERVERS(servers);
    servers_ = servers;
  }

  // Puts a file of this test, under a directory named after it (tests run in
  // parallel against one document root), and returns its path under the root.
  std::string Put(const std::string& name, const std::string& bytes, std::time_t mtime = 0) {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return servers_->PutFile(
        std::string(info->test_suite_name()) + "." + info->name() + "/" + name, bytes, mtime);
  }

  const TestServers* servers_ = nullptr;
};

// TestServers::Load itself, on files of its own: needs no server.
TEST(HttpServerEnvTest, LoadReadsKeysAndRejectsIncompleteFiles) {
  const std::string dir = ::testing::TempDir();
  const std::string file = dir + "/quillon_servers_env_test." + std::to_string(::getpid());
  auto write = [&](const std::string& text) {
    std::ofstream(file, std::ios::trunc) << text;
  };
  const std::string good =
      "# comment\n\nHTTP_PORT=8080\nHTTPS_PORT=8443\nHTTP_URL=http://127.0.0.1:8080/\n"
      "HTTPS_URL=https://127.0.0.1:8443\nHTTPS_CA=/x/ca.pem\nNGINX_PID=1234\nWWW=" + dir +
      "\nEXTRA=a=b c\r\n";
  write(good);
  TestServers s;
  std::string error;
  ASSERT_TRUE(TestServers::Load(file, &s, &error)) << error;
  EXPECT_EQ(s.http_port(), 8080);
  EXPECT_EQ(s.https_port(), 8443);
  EXPECT_EQ(s.http_url(), "http://127.0.0.1:8080");  // trailing '/' dropped
  EXPECT_EQ(s.HttpUrl("/a"), "http://127.0.0.1:8080/a");
  EXPECT_EQ(s.HttpsUrl("a"), "https://127.0.0.1:8443/a");
  EXPECT_EQ(s.https_ca(), "/x/ca.pem");
  EXPECT_EQ(s.nginx_pid(), 1234);
  EXPECT_EQ(s.Get("EXTRA"), "a=b c");  // verbatim after the first '=', CR dropped

  write("HTTP_PORT=8080\n");
  EXPECT_FALSE(TestServers::Load(file, &s, &error));
  EXPECT_NE(error.find("HTTPS_PORT"), std::string::npos) << error;
  write(good + "HTTP_PORT=eighty\n");
  EXPECT_FALSE(TestServers::Load(file, &s, &error));
  write(good + "no equals sign\n");
  EXPECT_FALSE(TestServers::Load(file, &s, &error));
  std::remove(file.c_str());
  EXPECT_FALSE(TestServers::Load(file, &s, &error));
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
}

TEST_F(HttpServerTest, EnvironmentIsComplete) {
  EXPECT_GT(servers_->http_port(), 0);
  EXPECT_GT(servers_->https_port(), 0);
  EXPECT_NE(servers_->http_port(), servers_->https_port());
  EXPECT_EQ(servers_->http_url(), "http://127.0.0.1:" + std::to_string(servers_->http_port()));
  EXPECT_EQ(servers_->https_url(), "https://127.0.0.1:" + std::to_string(servers_->https_port()));
  EXPECT_EQ(servers_->HttpUrl("x"), servers_->http_url() + "/x");
  EXPECT_EQ(servers_->HttpsUrl("/x"), servers_->https_url() + "/x");
  EXPECT_GT(servers_->nginx_pid(), 1);
  EXPECT_FALSE(servers_->https_ca().empty());
  EXPECT_FALSE(servers_->www().empty());
  EXPECT_EQ(servers_->Get("WWW"), servers_->www());
  EXPECT_EQ(servers_->Get("NO_SUCH_KEY"), "");
}

TEST_F(HttpServerTest, PutFileRejectsPathsOutsideTheRoot) {
  EXPECT_THROW(servers_->PutFile("/etc/passwd", "x"), std::runtime_error);
  EXPECT_THROW(servers_->PutFile("../escape.txt", "x"), std::runtime_error);
  EXPECT_THROW(servers_->PutFile("a/../../escape.txt", "x"), std::runtime_error);
  EXPECT_THROW(servers_->PutFile("", "x"), std::runtime_error);
  EXPECT_EQ(Put("./sub/dir/f.txt", "x"), "/HttpServerTest.PutFileRejectsPathsOutsideTheRoot/sub/dir/f.txt");
}

TEST_F(HttpServerTest, HttpGetServesBytesContentTypeAndLastModified) {
  const std::string bytes = BinaryBytes(3000);
  const std::string path = Put("test.crl", bytes, kMtime);
  const Response r = Get(*servers_, servers_->HttpUrl("/files" + path));
  ASSERT_EQ(r.code, CURLE_OK) << r.error;
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, bytes);
  EXPECT_EQ(r.Header("content-type"), "application/pkix-crl");
  EXPECT_EQ(r.Header("content-length"), "3000");
  EXPECT_EQ(r.Header("last-modified"), kMtimeHttp);
  EXPECT_EQ(curl_getdate(r.Header("last-modified").c_str(), nullptr), kMtime);
  EXPECT_TRUE(r.Has("etag"));
}

TEST_F(HttpServerTest, HttpsGetVerifiesWithTheHttpsCa) {
  const std::string bytes = BinaryBytes(2000);
  const std::string path = Put("ocsp/resp.der", bytes, kMtime);
  const Response r = Get(*servers_, servers_->HttpsUrl("/files" + path));
  ASSERT_EQ(r.code, CURLE_OK) << r.error;
  EXPECT_EQ(r.status, 200);
  EXPECT_EQ(r.body, bytes);
  EXPECT_EQ(r.Header("content-type"), "application/ocsp-response");
  EXPECT_EQ(r.Header("last-modified"), kMtimeHttp);

  // The certificate also names DNS:localhost; pin the name to 127.0.0.1
  // (localhost may resolve to ::1, where nothing listens).
  const std::string port = std::to_string(servers_->https_port());
  const Response by_name =
      Get(*servers_, "https://localhost:" + port + "/files" + path,
          PinnedTo127("localhost", servers_->https_port()));
  ASSERT_EQ(by_name.code, CURLE_OK) << by_name.error;
  EXPECT_EQ(by_name.body, bytes);

  // Verification is really on: a name the certificate does not carry fails.
  const Response wrong_name =
      Get(*servers_, "https://wrong.test:" + port + "/files" + path,
          PinnedTo127("wrong.test", servers_->https_port()));
  EXPECT_EQ(wrong_name.code, CURLE_PEER_FAILED_VERIFICATION) << wrong_name.error;
}

TEST_F(HttpServerTest, IfModifiedSinceGives304) {
  const std::string path = Put("cond.crl", BinaryBytes(500), kMtime);
  for (const std::string& base : {servers_->http_url(), servers_->https_url()}) {
    SCOPED_TRACE(base);
    const Response same =
        Get(*servers_, base + "/files" + path,
            IfModifiedSince(kMtime));
    ASSERT_EQ(same.code, CURLE_OK) << same.error;
    EXPECT_EQ(same.status, 304);
    EXPECT_EQ(same.condition_unmet, 1);
    EXPECT_TRUE(same.body.empty());

    const Response later =
        Get(*servers_, base + "/files" + path,
            IfModifiedSince(kMtime + 3600));
    EXPECT_EQ(later.status, 304);

    const Response older =
        Get(*servers_, base + "/files" + path,
            IfModifiedSince(kMtime - 3600));
    ASSERT_EQ(older.code, CURLE_OK) << older.error;
    EXPECT_EQ(older.status, 200);
    EXPECT_EQ(older.body.size(), 500u);

    const std::string etag = older.Header("etag");
    ASSERT_FALSE(etag.empty());
    const Response by_etag =
        Get(*servers_, base + "/files" + path, WithHeader("If-None-Match: " + etag));
    EXPECT_EQ(by_etag.status, 304);
  }
}

TEST_F(HttpServerTest, NoLastModifiedPathHasNoValidators) {
  const std::string bytes = BinaryBytes(700);
  const std::string path = Put("nolm.crl", bytes, kMtime);
  const Response r = Get(*servers_, servers_->HttpUrl("/nolm" + path),
                         WithHeader("If-Modified-Since: " + std::string(kMtimeHttp)));
  ASSERT_EQ(r.code, CURLE_OK) << r.error;
  EXPECT_EQ(r.status, 200);  // never 304: there is nothing to compare with
  EXPECT_EQ(r.body, bytes);
  EXPECT_EQ(r.Header("content-type"), "application/pkix-crl");
  EXPECT_FALSE(r.Has("last-modified"));
  EXPECT_FALSE(r.Has("etag"));
}

TEST_F(HttpServerTest, MissingFileAndStatusPaths) {
  const Response missing = Get(*servers_, servers_->HttpUrl("/files/HttpServerTest.none/x.crl"));
  ASSERT_EQ(missing.code, CURLE_OK) << missing.error;
  EXPECT_EQ(missing.status, 404);
  EXPECT_EQ(Get(*servers_, servers_->HttpsUrl("/not-a-route")).status, 404);
  for (long status : {404L, 500L, 503L, 403L}) {
    const Response r = Get(*servers_, servers_->HttpUrl("/status/" + std::to_string(status)));
    ASSERT_EQ(r.code, CURLE_OK) << r.error;
    EXPECT_EQ(r.status, status);
  }
}

TEST_F(HttpServerTest, RedirectsAreFollowed) {
  const std::string bytes = BinaryBytes(1200);
  const std::string path = Put("moved.crl", bytes);

  // 302 to an absolute URL on the same server, not followed, then followed.
  const Response raw = Get(*servers_, servers_->HttpUrl("/redirect" + path));
  ASSERT_EQ(raw.code, CURLE_OK) << raw.error;
  EXPECT_EQ(raw.status, 302);
  EXPECT_EQ(raw.Header("location"), servers_->HttpUrl("/files" + path));

  const Response followed = Get(*servers_, servers_->HttpUrl("/redirect" + path), Follow());
  ASSERT_EQ(followed.code, CURLE_OK) << followed.error;
  EXPECT_EQ(followed.status, 200);
  EXPECT_EQ(followed.body, bytes);
  EXPECT_EQ(followed.redirects, 1);
  EXPECT_EQ(followed.effective_url, servers_->HttpUrl("/files" + path));

  EXPECT_EQ(Get(*servers_, servers_->HttpUrl("/redirect301" + path)).status, 301);

  const Response relative = Get(*servers_, servers_->HttpUrl("/redirect-relative" + path));
  EXPECT_EQ(relative.status, 302);
  EXPECT_EQ(relative.Header("location"), "/files" + path);
  const Response relative_followed =
      Get(*servers_, servers_->HttpUrl("/redirect-relative" + path), Follow());
  EXPECT_EQ(relative_followed.status, 200);
  EXPECT_EQ(relative_followed.body, bytes);

  // From HTTP to HTTPS, verified with the HTTPS CA.
  const Response to_https =
      Get(*servers_, servers_->HttpUrl("/redirect-https" + path), Follow());
  ASSERT_EQ(to_https.code, CURLE_OK) << to_https.error;
  EXPECT_EQ(to_https.status, 200);
  EXPECT_EQ(to_https.body, bytes);
  EXPECT_EQ(to_https.effective_url, servers_->HttpsUrl("/files" + path));

  // A loop ends at the redirect limit.
  const Response loop =
      Get(*servers_, servers_->HttpUrl("/redirect-loop"), Follow(3));
  EXPECT_EQ(loop.code, CURLE_TOO_MANY_REDIRECTS) << loop.error;
}

TEST_F(HttpServerTest, PdfAndChunkedPaths) {
  const std::string bytes = BinaryBytes(900);
  const std::string path = Put("shape.crl", bytes);

  const Response pdf = Get(*servers_, servers_->HttpUrl("/pdf" + path));
  ASSERT_EQ(pdf.code, CURLE_OK) << pdf.error;
  EXPECT_EQ(pdf.body, bytes);
  EXPECT_EQ(pdf.Header("content-type"), "application/pdf");

  const Response chunked = Get(*servers_, servers_->HttpsUrl("/chunked" + path));
  ASSERT_EQ(chunked.code, CURLE_OK) << chunked.error;
  EXPECT_EQ(chunked.body, bytes);
  EXPECT_EQ(chunked.Header("transfer-encoding"), "chunked");
  EXPECT_FALSE(chunked.Has("content-length"));
}

TEST_F(HttpServerTest, StallAndSlowPathsDelay) {
  const std::string bytes = BinaryBytes(400);
  const std::string path = Put("late.crl", bytes);

  const Response stall =
      Get(*servers_, servers_->HttpUrl("/stall?s=1&f=" + path.substr(1)));
  ASSERT_EQ(stall.code, CURLE_OK) << stall.error;
  EXPECT_EQ(stall.status, 200);
  EXPECT_EQ(stall.body, bytes);
  EXPECT_GE(stall.seconds, 0.9);

  // Headers plus the first ~300 body bytes at once, the rest at 64 B/s.
  const Response slow = Get(*servers_, servers_->HttpUrl("/slow" + path));
  ASSERT_EQ(slow.code, CURLE_OK) << slow.error;
  EXPECT_EQ(slow.body, bytes);
  EXPECT_GE(slow.seconds, 0.9);

  // A client time-out shorter than the stall gives up.
  const Response gave_up =
      Get(*servers_, servers_->HttpUrl("/stall?s=5"), TimeoutMs(500));
  EXPECT_EQ(gave_up.code, CURLE_OPERATION_TIMEDOUT) << gave_up.error;
}

}  // namespace
}  // namespace quillon::testing
