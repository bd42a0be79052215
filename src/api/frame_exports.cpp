// Exported entry points of the library frame: initialisation, contexts,
// settings, logging switches, error codes, reports and release functions.
#include <cstdlib>
#include <cstring>
#include <new>

#include "api/export_guard.h"
#include "api/library.h"
#include "api/messages.h"
#include "quillon32/quillon32.h"

using quillon::api::CacheContext;
using quillon::api::Guarded;
using quillon::api::GuardedVoid;
using quillon::api::Library;
using quillon::api::AsCache;
using quillon::api::AsOcsp;
using quillon::api::OcspContext;

namespace {


template <size_t N>
void CopyCurlFile(std::array<char, N>* field, const char* file) {
  field->fill('\0');
  if (file && *file) std::strncpy(field->data(), file, N - 1);
}

// Copies at most N bytes of |text| into the N-byte |field|, zero-filling the
// rest: a text of N characters or more is kept without a terminator.
template <size_t N>
void CopyFixedField(std::array<char, N>* field, const char* text) {
  field->fill('\0');
  if (text) std::memcpy(field->data(), text, strnlen(text, N));
}

X500Time* CopyOf(const std::unique_ptr<X500Time>& t) {
  return t ? new (std::nothrow) X500Time(*t) : nullptr;
}

}  // namespace

// ---------------------------------------------------------------------------
// Initialisation and shutdown

unsigned char cache_init(char* ident, char* logFile) {
  return Guarded<unsigned char>(1, [&] {
    Library::Get().Init(nullptr, nullptr, ident, logFile, /*two_argument_form=*/true);
    return 1;
  });
}

unsigned char cache_init(char* dir, char* ident, char* logFile) {
  return cache_init(dir, nullptr, ident, logFile);
}

unsigned char cache_init(char* caDir, char* crlDir, char* ident, char* logFile) {
  return Guarded<unsigned char>(1, [&] {
    Library::Get().Init(caDir, crlDir, ident, logFile, /*two_argument_form=*/false);
    return 1;
  });
}

void cache_finalize() {
  GuardedVoid([] { Library::Get().Finalize(); });
}

Semaphore* cache_getCryptoDeviceSemaphore() { return Library::Get().device_guard(); }

// ---------------------------------------------------------------------------
// Contexts

namespace {
template <class Ctx>
Ctx* MakeContext() {
  Library& lib = Library::Get();
  auto ctx = std::make_unique<Ctx>();
  const uint8_t level = lib.settings().default_log_level;
  if (level != quillon::api::kLogOff) {
    ctx->logger.reset(lib.log().MakeLogger());
    ctx->logger->level = level;
  }
  return ctx.release();
}
}  // namespace

void* cache_getContext() {
  return Guarded<void*>(nullptr, [] { return MakeContext<CacheContext>(); });
}

void* ocsp_getContext() {
  return Guarded<void*>(nullptr, [] { return MakeContext<OcspContext>(); });
}

void cache_releaseContext(void* ctx) { delete AsCache(ctx); }
void ocsp_releaseContext(void* ctx) { delete AsOcsp(ctx); }

// ---------------------------------------------------------------------------
// Release functions

void cache_releaseCharArray(char* text) { std::free(text); }
void cache_releaseCertList(CertList* list) { delete list; }
void cache_releaseCertificate(Certificate* cert) { delete cert; }
void cache_releaseCertificateList(CertificateList* crl) { delete crl; }
void cache_releaseX500Time(X500Time* time) { delete time; }
void ocsp_releaseOCSPResponse(OCSPResponse* response) { delete response; }

// ---------------------------------------------------------------------------
// Settings

void cache_setDownloadCRL(unsigned char mode) { Library::Get().settings().download_mode = mode; }
void cache_setTimeStampCheck(unsigned char on) { Library::Get().settings().timestamp_check = on; }
void cache_setTimeout(int seconds) { Library::Get().settings().crl_timeout = seconds; }
void ocsp_setTimeout(int seconds) { Library::Get().settings().ocsp_timeout = seconds; }
void ocsp_setTCPTimeout(int seconds) { Library::Get().settings().ocsp_timeout = seconds; }

void cache_setLang(int language) {
  auto& s = Library::Get().settings();
  s.language = static_cast<uint8_t>(language & 0xFF);
  s.ocsp_language = s.language;
}

void cache_setEUTSLLocation(char* location) {
  Library& lib = Library::Get();
  MutexGuard hold(lib.guard(quillon::api::kEuTslGuard));
  auto& field = lib.settings().eu_tsl_location;
  // A location of 256 characters or more is kept without a terminator,
  // which FieldText() copes with.
  CopyFixedField(&field, location);
}

void cache_setCrlProxyUri(char* uri) {
  Library& lib = Library::Get();
  MutexGuard hold(lib.guard(quillon::api::kCrlTableGuard));
  auto& field = lib.settings().crl_proxy_uri;
  CopyFixedField(&field, uri);
}

void cache_setCURLlog(const char* file) {
  Library& lib = Library::Get();
  MutexGuard hold(lib.guard(quillon::api::kCrlTableGuard));
  CopyCurlFile(&lib.settings().curl_log, file);
}

void cache_setCURLCaCert(const char* file) {
  Library& lib = Library::Get();
  MutexGuard hold(lib.guard(quillon::api::kCrlTableGuard));
  CopyCurlFile(&lib.settings().curl_ca_cert, file);
}

void cache_setReceiveCallback(cache_receive_callback callback, void* user) {
  auto& s = Library::Get().settings();
  s.receive_callback = callback;
  s.receive_user = user;
}

void cache_setUseLocalCRLs(void* ctx, unsigned char on) { AsCache(ctx)->use_local_crls = on; }
void ocsp_setUseLocalResponses(void* ctx, unsigned char on) {
  AsOcsp(ctx)->use_local_responses = on;
}

// ---------------------------------------------------------------------------
// Logging

void cache_enableLog(unsigned char level) {
  Library::Get().settings().default_log_level = level >= 8 ? 7 : level;
}

void cache_disableLog() { Library::Get().settings().default_log_level = quillon::api::kLogOff; }

void ocsp_enableLog(void* ctx, unsigned char level) {
  GuardedVoid([&] {
    OcspContext* c = AsOcsp(ctx);
    if (!c->logger) c->logger.reset(Library::Get().log().MakeLogger());
    c->logger->level = level;
  });
}

void ocsp_disableLog(void* ctx) { AsOcsp(ctx)->logger.reset(); }

// ---------------------------------------------------------------------------
// Error codes and reports

unsigned long cache_getErrCode(void* ctx) { return AsCache(ctx)->error; }
unsigned long ocsp_getErrCode(void* ctx) { return AsOcsp(ctx)->error; }
unsigned char cache_getReason(void* ctx) { return AsCache(ctx)->reason; }

unsigned char ocsp_getReason(void* ctx) {
  const uint8_t r = AsOcsp(ctx)->reason;
  return r == 0xFF ? 0 : r;
}

X500Time* cache_getThisUpdate(void* ctx) { return CopyOf(AsCache(ctx)->this_update); }
X500Time* cache_getNextUpdate(void* ctx) { return CopyOf(AsCache(ctx)->next_update); }
X500Time* cache_getRevocationDate(void* ctx) { return CopyOf(AsCache(ctx)->revocation_date); }
X500Time* cache_getInvalidSince(void* ctx) { return CopyOf(AsCache(ctx)->invalid_since); }
X500Time* cache_getExpiredCertsOnCRL(void* ctx) {
  return CopyOf(AsCache(ctx)->expired_certs_on_crl);
}
X500Time* ocsp_getThisUpdate(void* ctx) { return CopyOf(AsOcsp(ctx)->this_update); }
X500Time* ocsp_getNextUpdate(void* ctx) { return CopyOf(AsOcsp(ctx)->next_update); }
X500Time* ocsp_getRevocationDate(void* ctx) { return CopyOf(AsOcsp(ctx)->revocation_date); }
X500Time* ocsp_getInvalidSince(void* ctx) { return CopyOf(AsOcsp(ctx)->invalid_since); }

void cache_resetReport(void* ctx) {
  CacheContext* c = AsCache(ctx);
  c->error = 0xFFFFFFFFu;
  c->reason = 0;
  c->this_update.reset();
  c->next_update.reset();
  c->expired_certs_on_crl.reset();
  c->revocation_date.reset();
  c->invalid_since.reset();
}

void ocsp_resetReport(void* ctx) {
  OcspContext* c = AsOcsp(ctx);
  c->error = 0xFFFFFFFFu;
  c->reason = 0xFF;
  c->this_update.reset();
  c->next_update.reset();
  c->produced_at.reset();
  c->revocation_date.reset();
  c->invalid_since.reset();
  c->crl_reference.clear();
  c->response.reset();
}
