// Operations on the process-wide CA table and its file that the exported
// functions share (and the trusted-list loader will use): each takes the
// caller's context for its log and work buffer and takes the guards itself.
#pragma once

#include <cstdint>

#include "api/library.h"
#include "quillon32/certificate.h"
#include "quillon32/tsl_metadata.h"

namespace quillon::api {

// The context's logger; null for a null context or one without a log.
inline const Logger* LoggerOf(const CacheContext* ctx) { return ctx ? ctx->logger.get() : nullptr; }

// Adds a copy of |cert| (decoded) with |source| and a copy of |metadata| to
// the CA table, under the CA table guard; a new subject is logged at level 5.
// False, nothing changed, when the table is full and the subject new.
bool AddCaCertificate(CacheContext* ctx, const Certificate& cert, int32_t source,
                      const TSLMetadata* metadata = nullptr);

// Writes the CA table and the loaded-list register to the CA list file.
// False, file untouched, when there is nothing to write or the write fails.
bool SaveCaList(CacheContext* ctx);
// Replaces the CA table and the register with the CA list file's content.
// False, both untouched, when the file cannot be read or is damaged.
bool LoadCaList(CacheContext* ctx);

// How a PEM list file is read into the table.
enum class PemListMode {
  kInitialise,  // source 2, the table emptied first; "initialization" log lines
  kAdd,         // source 3, added to what is there; "addition" log lines
};
bool ReadPemList(CacheContext* ctx, const char* file, PemListMode mode);

}  // namespace quillon::api
