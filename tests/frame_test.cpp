// The library frame: initialisation, settings, contexts, reports and the log.
// Process-wide state is set once per process, so each case that initialises
// runs in a child process of its own (EXPECT_EXIT).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "api/library.h"
#include "api/logger.h"
#include "api/messages.h"
#include "platform/clock.h"
#include "quillon32/quillon32.h"
#include "support/pki_factory.h"

namespace {

using quillon::api::FieldText;
using quillon::api::Library;

// Runs |body| in a child process; the test passes when it returns true.
#define IN_CHILD(body) EXPECT_EXIT(std::exit((body) ? 0 : 1), ::testing::ExitedWithCode(0), "")

char* C(const std::string& s) { return const_cast<char*>(s.c_str()); }

std::string ReadText(const std::string& path) {
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct PathCase {
  const char* name;
  int form;  // 2, 3 or 4 arguments
  std::string ca_dir, crl_dir;
  std::string ca_path, crl_path;
};

TEST(Frame, InitComposesTheTwoFilePaths) {
  const std::string long_dir(600, 'd');
  const PathCase cases[] = {
      {"two arguments", 2, "", "", "./caCertsList-3.5", "./crlCache"},
      {"CA dir, empty CRL dir", 4, "/data", "", "/data/caCertsList-3.5", "/data/crlCache"},
      {"empty CA dir, CRL dir", 4, "", "/crl", "./caCertsList-3.5", "/crl/crlCache"},
      {"three arguments", 3, "/x", "", "/x/caCertsList-3.5", "/x/crlCache"},
      // The CRL directory's bound is one character longer than the CA one's.
      {"overlong dirs are cut", 4, long_dir, long_dir, long_dir.substr(0, 512),
       long_dir.substr(0, 513)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    IN_CHILD(([&] {
      std::string ident = "t";
      if (c.form == 2) {
        cache_init(C(ident), nullptr);
      } else if (c.form == 3) {
        cache_init(C(c.ca_dir), C(ident), nullptr);
      } else {
        cache_init(C(c.ca_dir), C(c.crl_dir), C(ident), nullptr);
      }
      Library& lib = Library::Get();
      return lib.ca_list_path() == c.ca_path && lib.crl_cache_path() == c.crl_path &&
             lib.log().file() == "NUL" && lib.ca_list_path().size() <= 512;
    }()));
  }
}

TEST(Frame, SecondInitIsANoOpAndFinalizeKeepsItSo) {
  IN_CHILD(([] {
    std::string a = "/first", b = "/second", id = "x";
    if (cache_getCryptoDeviceSemaphore() != nullptr) return false;
    if (cache_init(C(a), C(id), nullptr) != 1) return false;
    if (cache_getCryptoDeviceSemaphore() == nullptr) return false;
    if (Library::Get().device() == nullptr || !Library::Get().device()->isOpen()) return false;
    if (cache_init(C(b), C(id), nullptr) != 1) return false;
    const bool kept = Library::Get().ca_list_path() == "/first/caCertsList-3.5";
    cache_setDownloadCRL(3);
    cache_finalize();
    const bool closed = Library::Get().device() == nullptr && cache_getCryptoDeviceSemaphore() == nullptr;
    cache_init(C(b), C(id), nullptr);
    return kept && closed && Library::Get().device() == nullptr &&
           Library::Get().settings().download_mode == 3 &&
           Library::Get().ca_list_path() == "/first/caCertsList-3.5";
  }()));
}

TEST(Frame, SettingsKeepTheirDefaultsLimitsAndCopyRules) {
  IN_CHILD(([] {
    auto& s = Library::Get().settings();
    bool ok = s.download_mode == 2 && s.timestamp_check == 1 && s.crl_timeout == 60 &&
              s.language == 0 && s.ocsp_timeout == 15 && s.default_log_level == 255 &&
              FieldText(s.eu_tsl_location).rfind("https://", 0) == 0 &&
              FieldText(s.crl_proxy_uri).empty();
    ocsp_setTCPTimeout(5);
    ocsp_setTimeout(20);
    ok = ok && s.ocsp_timeout == 20;
    ocsp_setTimeout(7);
    ocsp_setTCPTimeout(9);
    ok = ok && s.ocsp_timeout == 9;
    cache_setLang(257);
    ok = ok && s.language == 1 && s.ocsp_language == 1;
    cache_enableLog(9);
    ok = ok && s.default_log_level == 7;
    cache_enableLog(4);
    ok = ok && s.default_log_level == 4;

    const std::string long_name(300, 'f');
    cache_setCURLlog(long_name.c_str());
    ok = ok && FieldText(s.curl_log) == long_name.substr(0, 259);
    cache_setCURLlog("");
    ok = ok && FieldText(s.curl_log).empty();
    cache_setCURLCaCert("/etc/ssl/ca.pem");
    ok = ok && FieldText(s.curl_ca_cert) == "/etc/ssl/ca.pem";
    cache_setCURLCaCert(nullptr);
    ok = ok && FieldText(s.curl_ca_cert).empty();

    // 256 bytes at most, and then without a terminator.
    std::string location(300, 'u');
    cache_setEUTSLLocation(C(location));
    ok = ok && FieldText(s.eu_tsl_location) == location.substr(0, 256) &&
         s.eu_tsl_location[255] == 'u';
    std::string proxy = "http://127.0.0.1:3128/%s";
    cache_setCrlProxyUri(C(proxy));
    ok = ok && FieldText(s.crl_proxy_uri) == proxy;
    return ok;
  }()));
}

TEST(Frame, ContextsStartCleanAndReportGettersReturnCopies) {
  void* ctx = cache_getContext();
  void* octx = ocsp_getContext();
  ASSERT_NE(ctx, nullptr);
  ASSERT_NE(octx, nullptr);
  EXPECT_EQ(cache_getErrCode(ctx), 0xFFFFFFFFul);
  EXPECT_EQ(cache_getReason(ctx), 0);
  EXPECT_EQ(ocsp_getErrCode(octx), 0xFFFFFFFFul);
  EXPECT_EQ(ocsp_getReason(octx), 0);
  EXPECT_EQ(cache_getThisUpdate(ctx), nullptr);
  EXPECT_EQ(ocsp_getRevocationDate(octx), nullptr);

  auto* c = static_cast<quillon::api::CacheContext*>(ctx);
  c->this_update = std::make_unique<X500Time>(1700000000);
  c->revocation_date = std::make_unique<X500Time>(1600000000, 500000);
  c->reason = 6;
  c->error = 5138;
  X500Time* a = cache_getThisUpdate(ctx);
  X500Time* b = cache_getThisUpdate(ctx);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  EXPECT_EQ(*a, *b);
  EXPECT_STREQ(a->text(), b->text());
  cache_releaseX500Time(a);
  cache_releaseX500Time(b);
  X500Time* r = cache_getRevocationDate(ctx);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->fraction(), 500000u);
  cache_releaseX500Time(r);
  EXPECT_EQ(cache_getReason(ctx), 6);

  cache_setUseLocalCRLs(ctx, 1);
  cache_resetReport(ctx);
  EXPECT_EQ(cache_getErrCode(ctx), 0xFFFFFFFFul);
  EXPECT_EQ(cache_getReason(ctx), 0);
  EXPECT_EQ(cache_getRevocationDate(ctx), nullptr);
  EXPECT_EQ(cache_getThisUpdate(ctx), nullptr);
  EXPECT_EQ(c->use_local_crls, 1);  // flags survive a reset

  auto* o = static_cast<quillon::api::OcspContext*>(octx);
  o->reason = 1;
  o->next_update = std::make_unique<X500Time>(1700000000);
  EXPECT_EQ(ocsp_getReason(octx), 1);
  ocsp_resetReport(octx);
  EXPECT_EQ(o->reason, 0xFF);
  EXPECT_EQ(ocsp_getNextUpdate(octx), nullptr);

  cache_releaseContext(ctx);
  ocsp_releaseContext(octx);
  cache_releaseContext(nullptr);
  ocsp_releaseContext(nullptr);
  cache_releaseCertificate(nullptr);
  cache_releaseX500Time(nullptr);
  cache_releaseCharArray(nullptr);
}

TEST(Frame, LoggerOfContextsFollowsTheDefaultLevel) {
  IN_CHILD(([] {
    cache_disableLog();
    void* quiet = cache_getContext();
    const bool no_logger = static_cast<quillon::api::CacheContext*>(quiet)->logger == nullptr;
    cache_enableLog(5);
    void* loud = cache_getContext();
    auto* lg = static_cast<quillon::api::CacheContext*>(loud)->logger.get();
    const bool has_logger = lg != nullptr && lg->level == 5;
    void* o = ocsp_getContext();
    ocsp_enableLog(o, 200);  // not clamped
    const bool ocsp_level = static_cast<quillon::api::OcspContext*>(o)->logger->level == 200;
    ocsp_disableLog(o);
    const bool ocsp_off = static_cast<quillon::api::OcspContext*>(o)->logger == nullptr;
    cache_releaseContext(quiet);
    cache_releaseContext(loud);
    ocsp_releaseContext(o);
    return no_logger && has_logger && ocsp_level && ocsp_off;
  }()));
}

TEST(Logger, ComposesOneArgumentIntoTheFirstPlaceholderOnly) {
  using quillon::api::ComposeWithNumber;
  using quillon::api::ComposeWithText;
  std::string line;
  EXPECT_TRUE(ComposeWithText("CRL: %s", "x", &line));
  EXPECT_EQ(line, "CRL: x");
  EXPECT_FALSE(ComposeWithText("no placeholder", "x", &line));
  EXPECT_FALSE(ComposeWithText("count %d", "x", &line));
  EXPECT_TRUE(ComposeWithText("%s and %s", "a", &line));
  EXPECT_EQ(line, "a and %s");
  EXPECT_TRUE(ComposeWithNumber("CRLs in cache: %d", -42, &line));
  EXPECT_EQ(line, "CRLs in cache: -42");
  const std::string big(2000, 'a');
  EXPECT_TRUE(ComposeWithText("[%s]", big.c_str(), &line));
  EXPECT_EQ(line.size(), 1024u);
  EXPECT_EQ(line[0], '[');
  // A placeholder beyond the first 1024 characters of the format is not seen.
  const std::string far = std::string(1100, 'x') + "%s";
  EXPECT_FALSE(ComposeWithText(far.c_str(), "a", &line));
}

TEST(Logger, WritesPrefixedLinesInTheCurrentLanguageAndFiltersByLevel) {
  quillon::testing::TempDir dir;
  const std::string log = dir.path() + "/quillon.log";
  IN_CHILD(([&] {
    std::string ident = "tester";
    cache_init(C(ident), C(log));
    cache_enableLog(6);
    void* a = cache_getContext();
    void* b = cache_getContext();
    void* c = cache_getContext();  // the third logger since cache_init
    auto* lg = static_cast<quillon::api::CacheContext*>(c)->logger.get();
    cache_setLang(1);
    quillon::api::Log(lg, 3, quillon::api::kFailedToAddCaList);
    quillon::api::Log(lg, 7, quillon::api::kStartCrlCheck);  // dropped at level 6
    quillon::api::LogNumber(lg, 6, quillon::api::kCrlsInCache, 3);
    quillon::api::LogText(lg, 6, quillon::api::kFailedToAddCaList, "x");  // no %s: no line
    cache_setLang(0);
    quillon::api::Log(lg, 3, quillon::api::kFailedToAddCaList);
    cache_releaseContext(a);
    cache_releaseContext(b);
    cache_releaseContext(c);

    const std::string text = ReadText(log);
    const std::string tail = "tester[" + std::to_string(getpid()) + ".3]: ";
    const std::string expected =
        tail + "Failed to add to the list of CA certificates\n" + "" +
        "CRLs in cache: 3\n" + std::string(quillon::api::MessageText(5195, 0)) + "\n";
    // Strip the time stamps: every line must contain the prefix tail.
    std::string stripped;
    std::istringstream lines(text);
    std::string line;
    int count = 0;
    while (std::getline(lines, line)) {
      const size_t at = line.find(tail);
      if (at == std::string::npos) return false;
      stripped += line.substr(at + tail.size()) + "\n";
      ++count;
    }
    return count == 3 &&
           stripped == "Failed to add to the list of CA certificates\nCRLs in cache: 3\n" +
                           std::string(quillon::api::MessageText(5195, 0)) + "\n" &&
           !expected.empty();
  }()));
}

TEST(Logger, TimeStampUsesLocalTimeAndTheZoneLabelFromItsFourthCharacter) {
  quillon::api::LogSetup setup;
  quillon::platform::SetFixedTime(quillon::platform::WallTime{1700000000, 250000});
  std::string stamp = quillon::api::TimeStamp(setup);
  EXPECT_NE(stamp.find(".25 "), std::string::npos) << stamp;
  EXPECT_EQ(stamp.back(), ' ');
  setup.SetZoneLabel("GMT+0100 CET");
  stamp = quillon::api::TimeStamp(setup);
  EXPECT_EQ(stamp.substr(stamp.size() - 13), ".25 +0100 CET") << stamp;
  quillon::platform::SetFixedTime(quillon::platform::WallTime{1700000000, 0});
  stamp = quillon::api::TimeStamp(quillon::api::LogSetup());
  EXPECT_EQ(stamp.find('.'), std::string::npos) << stamp;
  quillon::platform::SetFixedTime(std::nullopt);
}

TEST(Logger, RotateRenamesTheFileWithTheLocalDate) {
  quillon::testing::TempDir dir;
  const std::string log = dir.path() + "/rot.log";
  quillon::testing::WriteFile(log, std::string("line\n"));
  quillon::api::LogSetup setup;
  setup.Configure("id", log.c_str(), nullptr);
  quillon::platform::SetFixedTime(quillon::platform::WallTime{1700000000, 0});
  const std::string suffix = X500Time(1700000000).formatLocal("%Y%m%d");
  EXPECT_TRUE(setup.Rotate());
  quillon::platform::SetFixedTime(std::nullopt);
  EXPECT_EQ(ReadText(log + "." + suffix), "line\n");
}

}  // namespace
