// The process-wide state of the library: one object, owned by the library
// for the life of the process, holding the crypto device and its guard, the
// settings, the file paths, the log set-up and the guards of the shared
// tables. Contexts hold only what belongs to one caller's check.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "api/logger.h"
#include "castore/ca_store.h"
#include "pki/crypto_device.h"
#include "quillon32/buffer.h"
#include "quillon32/semaphore.h"
#include "quillon32/x500_time.h"
#include "tsl/tsl_records.h"

class CertificateList;
class BasicOCSPResponse;
class OCSPResponse;

namespace quillon::api {

using ReceiveCallback = int (*)(unsigned long, unsigned char, unsigned long, unsigned long, void*);

inline constexpr size_t kPathMax = 512;
inline constexpr size_t kSettingTextSize = 256;  // buffers of exactly 256 bytes
inline constexpr size_t kCurlFileSize = 260;     // 259 characters and a terminator
inline constexpr uint8_t kLogOff = 255;

// The published location of the EU List of Trusted Lists.
inline constexpr const char kDefaultEuTslLocation[] =
    "https://ec.europa.eu/tools/lotl/eu-lotl.xml";

// The settings and their defaults as the library has them when loaded.
struct Settings {
  uint8_t download_mode = 2;    // 1 once, 2 when expired, 3 always, 4 local only
  uint8_t timestamp_check = 1;
  int32_t crl_timeout = 60;     // seconds
  uint8_t language = 0;         // 0 it, 1 en, 2 de, 3 fr, 4 es
  uint8_t ocsp_language = 0;
  int32_t ocsp_timeout = 15;    // seconds, shared by both OCSP time-out setters
  uint8_t default_log_level = kLogOff;
  // Fixed-size text fields, copied as the setters say: a 256-byte copy can
  // leave a field without a terminator, so readers use FieldText().
  std::array<char, kSettingTextSize> eu_tsl_location{};
  std::array<char, kSettingTextSize> crl_proxy_uri{};
  std::array<char, kCurlFileSize> curl_log{};
  std::array<char, kCurlFileSize> curl_ca_cert{};
  ReceiveCallback receive_callback = nullptr;
  void* receive_user = nullptr;
};

// Text of a fixed-size field that may lack a terminator.
template <size_t N>
std::string FieldText(const std::array<char, N>& field) {
  size_t n = 0;
  while (n < N && field[n] != '\0') ++n;
  return std::string(field.data(), n);
}

// The five guards of the shared tables and files.
enum GuardId { kCaTableGuard, kCrlTableGuard, kCaFileGuard, kCrlFileGuard, kEuTslGuard, kGuardCount };

class Library {
 public:
  // The one instance, made on first use and kept until the process ends.
  static Library& Get();

  // cache_init's work; true always (a second call does nothing).
  bool Init(const char* ca_dir, const char* crl_dir, const char* ident, const char* log_file,
            bool two_argument_form);
  // cache_finalize's work: closes and destroys the device and its guard.
  void Finalize();
  // What the library does when it is unloaded.
  void Unload();

  bool initialised() const { return initialised_; }
  // The crypto device and its guard while they exist: from cache_init to
  // cache_finalize. Contexts keep no copy of either, so that one made
  // before cache_finalize cannot reach a destroyed device; every signature
  // check asks here for the current one.
  Semaphore* device_guard() const { return device_guard_.get(); }
  pki::CryptoDevice* device() const { return device_.get(); }
  Mutex* guard(GuardId id) { return guards_ ? &(*guards_)[id] : nullptr; }

  Settings& settings() { return settings_; }
  LogSetup& log() { return log_; }
  const std::string& ca_list_path() const { return ca_list_path_; }
  const std::string& crl_cache_path() const { return crl_cache_path_; }

  // The CA table, under the CA table guard.
  castore::CaStore& ca_store() { return ca_store_; }
  // The register of loaded trusted lists, also under the CA table guard; the
  // CA list file carries it behind the table.
  tsl::LoadedTslRegister& loaded_tsls() { return loaded_tsls_; }

 private:
  Library();

  bool initialised_ = false;  // cache_init ran once; later calls do nothing
  std::unique_ptr<Semaphore> device_guard_;
  std::unique_ptr<pki::CryptoDevice> device_;
  std::unique_ptr<std::array<Mutex, kGuardCount>> guards_;
  Settings settings_;
  LogSetup log_;
  std::string ca_list_path_;
  std::string crl_cache_path_;
  castore::CaStore ca_store_;
  tsl::LoadedTslRegister loaded_tsls_;
};

// A cache context: one caller's check. The crypto device is the library's
// (Library::device()), never the context's own.
struct CacheContext {
  std::unique_ptr<Logger> logger;   // null when logging was off when made
  SecureBuffer work{4096};
  SecureBuffer work2;
  uint32_t error = 0xFFFFFFFFu;     // all ones: no error recorded
  uint8_t reason = 0;
  uint8_t use_local_crls = 0;
  // The revocation report. The library keeps its own copies of the times
  // so that they stay valid whatever happens to the CRL they came from.
  std::unique_ptr<X500Time> this_update;
  std::unique_ptr<X500Time> next_update;
  std::unique_ptr<X500Time> expired_certs_on_crl;
  std::unique_ptr<X500Time> revocation_date;
  std::unique_ptr<X500Time> invalid_since;
  std::unique_ptr<std::vector<CertificateList>> local_crls;

  ~CacheContext();
};

// An OCSP context.
struct OcspContext {
  uint8_t use_local_responses = 0;
  std::unique_ptr<Logger> logger;
  SecureBuffer work{4096};
  uint32_t error = 0xFFFFFFFFu;
  uint8_t reason = 0xFF;            // none
  // The OCSP report.
  std::unique_ptr<X500Time> this_update;
  std::unique_ptr<X500Time> next_update;
  std::unique_ptr<X500Time> produced_at;
  std::unique_ptr<X500Time> revocation_date;
  std::unique_ptr<X500Time> invalid_since;
  std::vector<unsigned char> crl_reference;  // CrlID single extension, DER
  std::unique_ptr<OCSPResponse> response;
  std::unique_ptr<std::vector<BasicOCSPResponse>> local_responses;

  ~OcspContext();
};

// The contexts behind the opaque handles callers hold.
inline CacheContext* AsCache(void* ctx) { return static_cast<CacheContext*>(ctx); }
inline OcspContext* AsOcsp(void* ctx) { return static_cast<OcspContext*>(ctx); }

// Writing catalogue texts through a context's logger, in the current language.
void Log(const Logger* logger, uint8_t level, unsigned long code);
void LogText(const Logger* logger, uint8_t level, unsigned long code, const char* argument);
void LogNumber(const Logger* logger, uint8_t level, unsigned long code, long number);
// The catalogue text of |code| in the current language ("" when none).
std::string Message(unsigned long code);

// Records |code| as the context's error and logs its text at level 3.
void Fail(CacheContext* ctx, unsigned long code);
void Fail(OcspContext* ctx, unsigned long code);

}  // namespace quillon::api
