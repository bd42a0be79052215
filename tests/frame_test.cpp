// The library frame: initialisation, settings, contexts, reports and the log.
// Process-wide state is set once per process, so each case that initialises
// or changes settings runs in a child process of its own (EXPECT_EXIT).
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>
#include <string>

#include "api/library.h"
#include "api/logger.h"
#include "api/messages.h"
#include "platform/clock.h"
#include "quillon32/quillon32.h"
#include "support/ca_test_helpers.h"

namespace {

using quillon::api::CacheContext;
using quillon::api::FieldText;
using quillon::api::Library;
using quillon::api::OcspContext;
using quillon::testing::C;
using quillon::testing::ReadText;

TEST(Frame, InitComposesTheTwoFilePaths) {
  const std::string long_dir(600, 'd');
  const struct {
    const char* name;
    int form;  // 2 or 4 arguments
    std::string ca_dir, crl_dir, ca_path, crl_path;
  } cases[] = {
      {"two arguments", 2, "", "", "./caCertsList-3.5", "./crlCache"},
      {"CA dir, empty CRL dir", 4, "/data", "", "/data/caCertsList-3.5", "/data/crlCache"},
      // The CRL directory's bound is one character longer than the CA one's.
      {"overlong dirs are cut", 4, long_dir, long_dir, long_dir.substr(0, 512),
       long_dir.substr(0, 513)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    IN_CHILD([&] {
      std::string ident = "t";
      if (c.form == 2) {
        cache_init(C(ident), nullptr);
      } else {
        cache_init(C(c.ca_dir), C(c.crl_dir), C(ident), nullptr);
      }
      Library& lib = Library::Get();
      CHECK(lib.ca_list_path() == c.ca_path);
      CHECK(lib.crl_cache_path() == c.crl_path);
      CHECK(lib.log().file() == "NUL");
    });
  }
}

TEST(Frame, SecondInitIsANoOpAndFinalizeKeepsItSo) {
  IN_CHILD([] {
    std::string a = "/first", b = "/second", id = "x";
    Library& lib = Library::Get();
    CHECK(cache_getCryptoDeviceSemaphore() == nullptr);
    CHECK(cache_init(C(a), C(id), nullptr) == 1);
    CHECK(cache_getCryptoDeviceSemaphore() != nullptr);
    CHECK(lib.device() != nullptr && lib.device()->isOpen());
    CHECK(cache_init(C(b), C(id), nullptr) == 1);
    cache_setDownloadCRL(3);
    cache_finalize();
    CHECK(lib.device() == nullptr && cache_getCryptoDeviceSemaphore() == nullptr);
    cache_init(C(b), C(id), nullptr);
    CHECK(lib.device() == nullptr && lib.settings().download_mode == 3);
    CHECK(lib.ca_list_path() == "/first/caCertsList-3.5");
  });
}

TEST(Frame, SettingsKeepTheirLimitsButOcspLogLevelsAreNotClamped) {
  IN_CHILD([] {
    const auto& s = Library::Get().settings();
    ocsp_setTCPTimeout(5);  // one OCSP time-out behind two setters: the last call wins
    ocsp_setTimeout(20);
    CHECK(s.ocsp_timeout == 20);
    ocsp_setTCPTimeout(9);
    CHECK(s.ocsp_timeout == 9);
    cache_setLang(257);
    CHECK(s.language == 1 && s.ocsp_language == 1);
    cache_enableLog(9);
    CHECK(s.default_log_level == 7);
    void* o = ocsp_getContext();
    ocsp_enableLog(o, 200);
    CHECK(static_cast<OcspContext*>(o)->logger->level == 200);
    ocsp_releaseContext(o);
    cache_disableLog();  // contexts made now get no logger
    void* quiet = cache_getContext();
    CHECK(static_cast<CacheContext*>(quiet)->logger == nullptr);
    cache_releaseContext(quiet);
    const std::string long_name(300, 'f');
    cache_setCURLlog(long_name.c_str());
    CHECK(FieldText(s.curl_log) == long_name.substr(0, 259));
    std::string location(300, 'u');  // 256 bytes at most, then without a terminator
    cache_setEUTSLLocation(C(location));
    CHECK(FieldText(s.eu_tsl_location) == location.substr(0, 256));
  });
}

TEST(Frame, ContextsStartCleanAndReportGettersReturnCopies) {
  void* ctx = cache_getContext();
  void* octx = ocsp_getContext();
  ASSERT_TRUE(ctx && octx);
  EXPECT_EQ(ocsp_getErrCode(octx), 0xFFFFFFFFul);
  EXPECT_EQ(ocsp_getReason(octx), 0);  // "none" is answered as 0

  auto* c = static_cast<CacheContext*>(ctx);
  c->this_update = std::make_unique<X500Time>(1700000000);
  c->revocation_date = std::make_unique<X500Time>(1600000000, 500000);
  c->reason = 6;
  c->error = 5138;
  X500Time* a = cache_getThisUpdate(ctx);
  ASSERT_TRUE(a);
  EXPECT_NE(a, c->this_update.get());
  EXPECT_EQ(*a, *c->this_update);
  cache_releaseX500Time(a);
  cache_setUseLocalCRLs(ctx, 1);
  cache_resetReport(ctx);
  EXPECT_EQ(cache_getErrCode(ctx), 0xFFFFFFFFul);
  EXPECT_EQ(cache_getReason(ctx), 0);
  EXPECT_EQ(cache_getRevocationDate(ctx), nullptr);
  EXPECT_EQ(c->use_local_crls, 1);  // flags survive a reset

  auto* o = static_cast<OcspContext*>(octx);
  o->reason = 1;
  o->next_update = std::make_unique<X500Time>(1700000000);
  ocsp_resetReport(octx);
  EXPECT_EQ(o->reason, 0xFF);
  EXPECT_EQ(ocsp_getNextUpdate(octx), nullptr);
  cache_releaseContext(ctx);
  ocsp_releaseContext(octx);
}

TEST(Logger, ComposesOneArgumentIntoTheFirstPlaceholderOnly) {
  using quillon::api::ComposeWithNumber;
  using quillon::api::ComposeWithText;
  std::string line;
  EXPECT_TRUE(ComposeWithText("CRL: %s", "x", &line));
  EXPECT_EQ(line, "CRL: x");
  EXPECT_FALSE(ComposeWithText("count %d", "x", &line));
  EXPECT_TRUE(ComposeWithText("%s and %s", "a", &line));
  EXPECT_EQ(line, "a and %s");
  EXPECT_TRUE(ComposeWithNumber("%d", -42, &line));
  EXPECT_EQ(line, "-42");
  const std::string big(2000, 'a');
  EXPECT_TRUE(ComposeWithText("[%s]", big.c_str(), &line));
  EXPECT_EQ(line, "[" + big.substr(0, 1023));
  // A placeholder beyond the first 1024 characters of the format is not seen.
  const std::string far = std::string(1100, 'x') + "%s";
  EXPECT_FALSE(ComposeWithText(far.c_str(), "a", &line));
}

TEST(Logger, WritesPrefixedLinesInTheCurrentLanguageAndFiltersByLevel) {
  quillon::testing::TempDir dir;
  const std::string log = dir.File("quillon.log");
  IN_CHILD([&] {
    std::string ident = "tester";
    cache_init(C(ident), C(log));
    cache_enableLog(6);
    void* a = cache_getContext();
    void* b = cache_getContext();
    void* c = cache_getContext();  // the third logger since cache_init
    const auto* logger = static_cast<CacheContext*>(c)->logger.get();
    cache_setLang(1);
    quillon::api::Log(logger, 3, quillon::api::kFailedToAddCaList);
    quillon::api::Log(logger, 7, quillon::api::kStartCrlCheck);  // above level 6: dropped
    quillon::api::LogNumber(logger, 6, quillon::api::kCrlsInCache, 3);
    quillon::api::LogText(logger, 6, quillon::api::kFailedToAddCaList, "x");  // no %s: no line
    cache_setLang(0);
    quillon::api::Log(logger, 3, quillon::api::kFailedToAddCaList);
    for (void* ctx : {a, b, c}) cache_releaseContext(ctx);

    // Every line: the time stamp, then "tester[PID.3]: ", then the text.
    const std::string tail = " tester[" + std::to_string(getpid()) + ".3]: ";
    std::istringstream lines(ReadText(log));
    std::string line, texts;
    while (std::getline(lines, line)) {
      const size_t at = line.find(tail);
      CHECK(at != std::string::npos && at > 0);
      if (at != std::string::npos) texts += line.substr(at + tail.size()) + "\n";
    }
    CHECK(texts == "Failed to add to the list of CA certificates\nCRLs in cache: 3\n" +
                       std::string(quillon::api::MessageText(5195, 0)) + "\n");
  });
}

TEST(Logger, TimeStampUsesLocalTimeAndTheZoneLabelFromItsFourthCharacter) {
  quillon::api::LogSetup setup;
  quillon::platform::SetFixedTime(quillon::platform::WallTime{1700000000, 250000});
  setup.SetZoneLabel("GMT+0100 CET");
  std::string stamp = quillon::api::TimeStamp(setup);
  EXPECT_EQ(stamp.substr(stamp.size() - 13), ".25 +0100 CET") << stamp;
  quillon::platform::SetFixedTime(quillon::platform::WallTime{1700000000, 0});
  stamp = quillon::api::TimeStamp(quillon::api::LogSetup());
  quillon::platform::SetFixedTime(std::nullopt);
  EXPECT_EQ(stamp.find('.'), std::string::npos) << stamp;
}

}  // namespace
