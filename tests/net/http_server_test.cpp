// Smoke test of the server fixture (tests/servers/start.sh): nginx serves a
// file put in its document root over HTTP and over HTTPS, the latter
// verified against the fixture's own certificate. Fetched with libcurl
// directly, on 127.0.0.1 only.
#include <curl/curl.h>
#include <gtest/gtest.h>

#include <string>

#include "support/servers.h"

namespace quillon::testing {
namespace {

size_t OnBody(char* data, size_t size, size_t n, void* user) {
  static_cast<std::string*>(user)->append(data, size * n);
  return size * n;
}

TEST(HttpServer, ServesAFileOverHttpAndHttps) {
  QUILLON_REQUIRE_SERVERS(servers);
  curl_global_init(CURL_GLOBAL_DEFAULT);
  std::string bytes(3000, '\0');  // every octet value, NULs included
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>((i * 7 + 3) & 0xff);
  const std::string path = servers->PutFile("HttpServer/test.crl", bytes);
  const std::string ca = servers->https_ca();
  for (const std::string& url :
       {servers->HttpUrl("/files" + path), servers->HttpsUrl("/files" + path)}) {
    CURL* curl = curl_easy_init();
    ASSERT_NE(curl, nullptr);
    std::string body;
    long status = 0;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_PROXY, "");  // never through a proxy from the environment
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, 20000L);
    curl_easy_setopt(curl, CURLOPT_CAINFO, ca.c_str());
    curl_easy_setopt(curl, CURLOPT_CAPATH, static_cast<char*>(nullptr));
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, OnBody);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    const CURLcode code = curl_easy_perform(curl);
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    curl_easy_cleanup(curl);
    EXPECT_EQ(code, CURLE_OK) << url << ": " << curl_easy_strerror(code);
    EXPECT_EQ(status, 200) << url;
    EXPECT_EQ(body, bytes) << url;
  }
  curl_global_cleanup();
}

}  // namespace
}  // namespace quillon::testing
