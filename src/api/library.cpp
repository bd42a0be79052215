#include "api/library.h"

#include <cstring>

#include "api/messages.h"
#include "platform/unload.h"
#include "quillon32/certificate_list.h"
#include "quillon32/ocsp_response.h"

namespace quillon::api {

Library::Library() {
  std::memcpy(settings_.eu_tsl_location.data(), kDefaultEuTslLocation,
              sizeof kDefaultEuTslLocation);
}

Library& Library::Get() {
  // Never destroyed: contexts and exported calls may outlive static
  // destruction order in the embedding program.
  static Library* const instance = new Library;
  return *instance;
}

namespace {

// Appends |piece| to |path| only as far as the path stays within kPathMax.
void AppendBounded(std::string* path, std::string_view piece) {
  if (path->size() >= kPathMax) return;
  path->append(piece.substr(0, kPathMax - path->size()));
}

std::string DirectoryPath(const char* dir, size_t cut) {
  std::string path(dir, strnlen(dir, cut));
  AppendBounded(&path, "/");
  return path;
}

}  // namespace

bool Library::Init(const char* ca_dir, const char* crl_dir, const char* ident,
                   const char* log_file, bool two_argument_form) {
  if (initialised_) return true;
  initialised_ = true;
  device_guard_ = std::make_unique<Semaphore>();
  SemaphoreGuard hold(device_guard_.get());

  guards_ = std::make_unique<std::array<Mutex, kGuardCount>>();
  ca_store_.clear();
  loaded_tsls_.clear();
  settings_.eu_tsl_location.fill('\0');
  std::memcpy(settings_.eu_tsl_location.data(), kDefaultEuTslLocation,
              sizeof kDefaultEuTslLocation);
  settings_.download_mode = 2;

  device_ = std::make_unique<pki::CryptoDevice>(device_guard_.get());
  if (!device_->open(nullptr, nullptr, 0)) {
    // The library still initialises; signature checks will then fail.
  }
  log_.Configure(ident, log_file ? log_file : "NUL", nullptr);

  if (two_argument_form) {
    ca_list_path_ = "./caCertsList-3.5";
    crl_cache_path_ = "./crlCache";
    return true;
  }
  std::string ca = (ca_dir && *ca_dir) ? DirectoryPath(ca_dir, kPathMax) : std::string("./");
  std::string crl = (crl_dir && *crl_dir) ? DirectoryPath(crl_dir, kPathMax + 1) : ca;
  AppendBounded(&ca, "caCertsList-3.5");
  AppendBounded(&crl, "crlCache");
  ca_list_path_ = ca;
  crl_cache_path_ = crl;
  return true;
}

void Library::Finalize() {
  if (device_) {
    device_->close();
    device_.reset();
    device_guard_.reset();
  }
}

void Library::Unload() {
  if (device_) {
    device_->close();
    device_.reset();
  }
}

CacheContext::~CacheContext() = default;
OcspContext::~OcspContext() = default;

std::string Message(unsigned long code) {
  const char* text = MessageText(code, Library::Get().settings().language);
  return text ? text : "";
}

void Log(const Logger* logger, uint8_t level, unsigned long code) {
  if (!logger || level > logger->level) return;
  const std::string text = Message(code);
  WriteLine(Library::Get().log(), logger, level, text.substr(0, kLogLineMax));
}

void LogText(const Logger* logger, uint8_t level, unsigned long code, const char* argument) {
  if (!logger || level > logger->level) return;
  const std::string format = Message(code);
  std::string line;
  if (!ComposeWithText(format.c_str(), argument, &line)) return;
  LogSetup& setup = Library::Get().log();
  WriteLine(setup, logger, level, line);
  if (level == 2 && !setup.mail_server().empty() && setup.mail_hook()) {
    setup.mail_hook()(setup.mail_server(), logger->mail_port, logger->mail_from, logger->mail_to,
                      line);
  }
}

void LogNumber(const Logger* logger, uint8_t level, unsigned long code, long number) {
  if (!logger || level > logger->level) return;
  const std::string format = Message(code);
  std::string line;
  if (!ComposeWithNumber(format.c_str(), number, &line)) return;
  WriteLine(Library::Get().log(), logger, level, line);
}

void Fail(CacheContext* ctx, unsigned long code) {
  ctx->error = static_cast<uint32_t>(code);
  Log(ctx->logger.get(), 3, code);
}

void Fail(OcspContext* ctx, unsigned long code) {
  ctx->error = static_cast<uint32_t>(code);
  Log(ctx->logger.get(), 3, code);
}

// Library load and unload: the device handles start empty (the Library
// object is made on first use); on unload an open device is closed.
const bool kUnloadHookSet = (platform::SetUnloadHook([] { Library::Get().Unload(); }), true);

}  // namespace quillon::api
