#include "api/ca_operations.h"

#include <memory>
#include <string>
#include <vector>

#include "api/messages.h"
#include "castore/ca_list_file.h"
#include "platform/files.h"

namespace quillon::api {

using castore::AddOutcome;
using castore::CaStore;

namespace {

// The context's work buffer, or a buffer of our own for a null context.
class WorkBuffer {
 public:
  explicit WorkBuffer(CacheContext* ctx) : buffer_(ctx ? &ctx->work : &own_) { buffer_->clear(); }
  std::vector<unsigned char>& bytes() { return buffer_->bytes(); }
  Buffer& buffer() { return *buffer_; }

 private:
  SecureBuffer own_;
  SecureBuffer* buffer_;
};

}  // namespace

bool AddCaCertificate(CacheContext* ctx, const Certificate& cert, int32_t source,
                      const TSLMetadata* metadata) {
  Library& lib = Library::Get();
  std::string new_key;
  {
    MutexGuard hold(lib.guard(kCaTableGuard));
    CaStore& store = lib.ca_store();
    bool new_entry = false;
    if (store.add(cert, source, metadata, &new_entry) == AddOutcome::kTableFull) return false;
    if (new_entry) new_key = store.entry(store.count() - 1).key();
  }
  if (!new_key.empty()) LogText(LoggerOf(ctx), 5, kFreeText, new_key.c_str());
  return true;
}

bool SaveCaList(CacheContext* ctx) {
  Library& lib = Library::Get();
  const Logger* log = LoggerOf(ctx);
  Log(log, 7, kStartCaListCopyToDisk);
  WorkBuffer work(ctx);
  {
    MutexGuard hold(lib.guard(kCaTableGuard));
    castore::EncodeCaList(lib.ca_store(), lib.loaded_tsls(), &work.bytes());
  }
  // An empty table with no trusted list: nothing is written, and an older
  // file stays as it is.
  if (work.bytes().empty()) return false;

  bool written;
  {
    MutexGuard hold(lib.guard(kCaFileGuard));
    const std::string& path = lib.ca_list_path();
    // Created owner-only, and made so again in case the rename kept a looser mode.
    written = !path.empty() &&
              platform::WriteFileAtomic(path, work.bytes().data(), work.bytes().size(),
                                        /*lock=*/false, 0600) &&
              platform::MakeOwnerOnly(path);
  }
  Log(log, written ? 7 : 3, written ? kEndCaListCopyToDisk : kFailedToSaveCaList);
  return written;
}

bool LoadCaList(CacheContext* ctx) {
  Library& lib = Library::Get();
  const Logger* log = LoggerOf(ctx);
  Log(log, 6, kLoadingCaList);
  // Decoded aside and swapped in whole, so that a damaged file leaves the
  // table and the register as they were. The file's bytes are kept: the
  // certificates read from it stay views of them until first used.
  CaStore store;
  tsl::LoadedTslRegister tsls;
  auto file = std::make_shared<std::vector<uint8_t>>();
  const std::string path = lib.ca_list_path();
  if (path.empty() || !platform::ReadWholeFile(path, file.get(), castore::kMaxCaListFileSize) ||
      !castore::DecodeCaList(file, &store, &tsls)) {
    Log(log, 3, kFailedToAccessCaList);
    return false;
  }
  int count;
  {
    MutexGuard hold(lib.guard(kCaTableGuard));
    lib.ca_store() = std::move(store);
    lib.loaded_tsls() = std::move(tsls);
    count = lib.ca_store().count();
  }
  Log(log, 6, kCaListLoadingCompleted);
  LogNumber(log, 6, kCaCertificatesIncludedInList, count);
  return true;
}

bool ReadPemList(CacheContext* ctx, const char* file, PemListMode mode) {
  Library& lib = Library::Get();
  const Logger* log = LoggerOf(ctx);
  const bool init = mode == PemListMode::kInitialise;
  std::string text;
  {
    Buffer raw;
    if (!file || !raw.readFile(file)) {
      // Initialisation gives up quietly; an addition says it failed.
      if (!init) Log(log, 3, kFailedToAddCaList);
      return false;
    }
    text.assign(reinterpret_cast<const char*>(raw.data()), raw.size());
  }

  if (init) {
    Log(log, 7, kCaListInitialization);
    MutexGuard hold(lib.guard(kCaTableGuard));
    lib.ca_store().clear();
  } else {
    Log(log, 7, kCaListAdditionInProgress);
  }

  auto fail = [&] {
    Log(log, 3, kFailedToAddCaList);
    if (init) Log(log, 3, kFailedToInitCaList);
    return false;
  };
  const int32_t source = init ? castore::kSourcePemList : castore::kSourceCaller;
  WorkBuffer work(ctx);
  size_t position = 0;
  // Stops at the first block that is malformed, is no certificate or does
  // not fit; what was added before stays.
  while (text.find("-----BEGIN ", position) != std::string::npos) {
    Certificate cert;
    if (!work.buffer().readPEMBlock(text, &position) ||
        !cert.decode(work.buffer().data(), work.buffer().size())) {
      return fail();
    }
    if (!cert.isStrictDER()) Log(log, 4, kCertEncodingNotBer);
    if (!AddCaCertificate(ctx, cert, source)) return fail();
  }

  Log(log, 7, init ? kCaListInitializationCompleted : kCaListAdditionCompleted);
  int count;
  {
    MutexGuard hold(lib.guard(kCaTableGuard));
    count = lib.ca_store().count();
  }
  LogNumber(log, 6, kCaCertificatesIncludedInList, count);
  return true;
}

}  // namespace quillon::api
