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
  std::string body, content_type, location;  // location: a redirect not followed
  std::time_t last_modified = -1;            // -1 when the server sent none
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
  EXPECT_EQ(r.code, CURLE_OK) << url << ": " << curl_easy_strerror(r.code);
  return r;
}

// Files as is over both ports, 304 for a file not modified since, a
// redirect to the file, and a body sent at a few bytes a second.
TEST(HttpServer, ServesFilesConditionallyRedirectedAndSlowly) {
  QUILLON_REQUIRE_SERVERS(servers);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::string bytes(3000, '\0');  // every octet value, NULs included
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xff);
  constexpr std::time_t kMtime = 1700000000;
  const std::string path = servers->PutFile("HttpServer/test.crl", bytes, kMtime);
  for (const std::string& url :
       {servers->HttpUrl("/files" + path), servers->HttpsUrl("/files" + path)}) {
    const Response r = Get(*servers, url);
    EXPECT_EQ(r.status, 200) << url;
    EXPECT_EQ(r.body, bytes) << url;
    EXPECT_EQ(r.content_type, "application/pkix-crl") << url;
    EXPECT_EQ(r.last_modified, kMtime) << url;
  }
  const std::string url = servers->HttpUrl("/files" + path);
  const Response same = Get(*servers, url, false, kMtime);
  EXPECT_EQ(same.status, 304);
  EXPECT_TRUE(same.body.empty());
  EXPECT_EQ(Get(*servers, url, false, kMtime - 3600).status, 200);

  const Response raw = Get(*servers, servers->HttpUrl("/redirect" + path));
  EXPECT_EQ(raw.status, 302);
  EXPECT_EQ(raw.location, url);
  EXPECT_EQ(Get(*servers, servers->HttpUrl("/redirect" + path), true).body, bytes);

  const std::string small = servers->PutFile("HttpServer/late.crl", bytes.substr(0, 400));
  const Response slow = Get(*servers, servers->HttpUrl("/slow" + small));
  EXPECT_EQ(slow.body, bytes.substr(0, 400));
  EXPECT_GE(slow.seconds, 0.9);
  curl_global_cleanup();
}

}  // namespace
}  // namespace quillon::testing
