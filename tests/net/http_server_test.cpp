// Proof that the server fixture works: nginx, started by tests/servers/start.sh,
// serves over HTTP and HTTPS the files a test puts in its document root, with
// the behaviours the network tests rely on. It fetches with libcurl directly
// (the library's own transfer code is tested on its own), on 127.0.0.1 only.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <chrono>
#include <ctime>
#include <string>

#include "support/servers.h"

namespace quillon::testing {
namespace {

struct Response {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
  std::string content_type;
  std::time_t last_modified = -1;  // -1 when the server sent none
  std::string location;            // a redirect's target, when not followed
  long redirects = 0;
  double seconds = 0;
};

size_t OnBody(char* data, size_t size, size_t n, void* user) {
  static_cast<Response*>(user)->body.append(data, size * n);
  return size * n;
}

// A GET of |url|, trusting the fixture's HTTPS certificate and nothing else;
// a non-zero |if_modified_since| makes it conditional.
Response Get(const TestServers& servers, const std::string& url, bool follow = false,
             std::time_t if_modified_since = 0) {
  Response r;
  CURL* curl = curl_easy_init();
  if (curl == nullptr) {
    ADD_FAILURE() << "curl_easy_init failed";
    r.code = CURLE_FAILED_INIT;
    return r;
  }
  const std::string ca = servers.https_ca();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_PROXY, "");  // never through a proxy from the environment
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 20000L);
  curl_easy_setopt(curl, CURLOPT_CAINFO, ca.c_str());
  curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr));
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, 1L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, follow ? 1L : 0L);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &r);
  curl_easy_setopt(curl, CURLOPT_FILETIME, 1L);
  if (if_modified_since != 0) {
    curl_easy_setopt(curl, CURLOPT_TIMECONDITION, static_cast<long>(CURL_TIMECOND_IFMODSINCE));
    curl_easy_setopt(curl, CURLOPT_TIMEVALUE_LARGE, static_cast<curl_off_t>(if_modified_since));
  }
  const auto start = std::chrono::steady_clock::now();
  r.code = curl_easy_perform(curl);
  r.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &r.status);
  curl_easy_getinfo(curl, CURLINFO_REDIRECT_COUNT, &r.redirects);
  curl_off_t filetime = -1;
  curl_easy_getinfo(curl, CURLINFO_FILETIME_T, &filetime);
  r.last_modified = static_cast<std::time_t>(filetime);
  const char* text = nullptr;
  if (curl_easy_getinfo(curl, CURLINFO_CONTENT_TYPE, &text) == CURLE_OK && text) {
    r.content_type = text;
  }
  text = nullptr;
  if (curl_easy_getinfo(curl, CURLINFO_REDIRECT_URL, &text) == CURLE_OK && text) r.location = text;
  curl_easy_cleanup(curl);
  return r;
}

// Bytes with every octet value, NULs included, so that nothing is taken for text.
std::string BinaryBytes(size_t n) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 7 + 3) & 0xff);
  return s;
}

constexpr std::time_t kMtime = 1700000000;

class HttpServerTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { curl_global_init(CURL_GLOBAL_DEFAULT); }
  static void TearDownTestSuite() { curl_global_cleanup(); }

  void SetUp() override {
    QUILLON_REQUIRE_SERVERS(servers);
    servers_ = servers;
  }

  // Puts a file under a directory named after this test; its path under the root.
  std::string Put(const std::string& name, const std::string& bytes, std::time_t mtime = 0) {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    return servers_->PutFile(std::string(info->test_suite_name()) + "." + info->name() + "/" + name,
                             bytes, mtime);
  }

  const TestServers* servers_ = nullptr;
};

TEST_F(HttpServerTest, ServesFilesOverHttpAndHttps) {
  const std::string bytes = BinaryBytes(3000);
  const std::string path = Put("test.crl", bytes, kMtime);
  for (const std::string& url :
       {servers_->HttpUrl("/files" + path), servers_->HttpsUrl("/files" + path)}) {
    SCOPED_TRACE(url);
    const Response r = Get(*servers_, url);
    ASSERT_EQ(r.code, CURLE_OK) << curl_easy_strerror(r.code);
    EXPECT_EQ(r.status, 200);
    EXPECT_EQ(r.body, bytes);
    EXPECT_EQ(r.content_type, "application/pkix-crl");
    EXPECT_EQ(r.last_modified, kMtime);
  }
}

TEST_F(HttpServerTest, IfModifiedSinceTheFileTimeGives304) {
  const std::string url = servers_->HttpUrl("/files" + Put("cond.crl", BinaryBytes(500), kMtime));
  const Response same = Get(*servers_, url, false, kMtime);
  ASSERT_EQ(same.code, CURLE_OK) << curl_easy_strerror(same.code);
  EXPECT_EQ(same.status, 304);
  EXPECT_TRUE(same.body.empty());
  const Response older = Get(*servers_, url, false, kMtime - 3600);
  EXPECT_EQ(older.status, 200);
  EXPECT_EQ(older.body.size(), 500u);
}

TEST_F(HttpServerTest, RedirectLeadsToTheFile) {
  const std::string bytes = BinaryBytes(1200);
  const std::string path = Put("moved.crl", bytes);
  const Response raw = Get(*servers_, servers_->HttpUrl("/redirect" + path));
  ASSERT_EQ(raw.code, CURLE_OK) << curl_easy_strerror(raw.code);
  EXPECT_EQ(raw.status, 302);
  EXPECT_EQ(raw.location, servers_->HttpUrl("/files" + path));
  const Response followed = Get(*servers_, servers_->HttpUrl("/redirect" + path), true);
  ASSERT_EQ(followed.code, CURLE_OK) << curl_easy_strerror(followed.code);
  EXPECT_EQ(followed.status, 200);
  EXPECT_EQ(followed.body, bytes);
  EXPECT_EQ(followed.redirects, 1);
}

TEST_F(HttpServerTest, SlowPathSendsTheBodyAtAFewBytesASecond) {
  const std::string bytes = BinaryBytes(400);
  const Response slow = Get(*servers_, servers_->HttpUrl("/slow" + Put("late.crl", bytes)));
  ASSERT_EQ(slow.code, CURLE_OK) << curl_easy_strerror(slow.code);
  EXPECT_EQ(slow.body, bytes);
  EXPECT_GE(slow.seconds, 0.9);
}

}  // namespace
}  // namespace quillon::testing
