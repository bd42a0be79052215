// The content of the CA list file "caCertsList-3.5": the CA table with each
// record's source and trusted-list metadata, followed by the register of
// loaded trusted lists. The layout is described beside EncodeCaList() in
// ca_list_file.cpp.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "castore/ca_store.h"
#include "pki/der.h"
#include "tsl/tsl_records.h"

namespace quillon::castore {

// A larger file is not read: a full table of certificates with trusted-list
// metadata takes a few megabytes.
inline constexpr size_t kMaxCaListFileSize = size_t{256} << 20;

// Appends the encoding of |store| and |tsls| to |out|. Nothing is appended
// when the table is empty and no trusted list is loaded.
void EncodeCaList(const CaStore& store, const tsl::LoadedTslRegister& tsls,
                  std::vector<uint8_t>* out);

// Reads a CA list file into |store| and |tsls|, which should be empty: the
// first kMaxEntries entries, then the register. False on any damage
// (truncation, bad lengths, an undecodable certificate, a certificate filed
// under a key other than its subject's, bytes after the register, ...);
// |store| and |tsls| may then hold part of the file and are to be thrown
// away.
// The records' certificates stay views of |file|, which they share.
[[nodiscard]] bool DecodeCaList(std::shared_ptr<const std::vector<uint8_t>> file, CaStore* store,
                                tsl::LoadedTslRegister* tsls);
// The same over a copy of |file|.
[[nodiscard]] bool DecodeCaList(der::Input file, CaStore* store, tsl::LoadedTslRegister* tsls);

}  // namespace quillon::castore
