// The trusted-list records the library keeps beside the CA table: the
// register of loaded national lists, the DER forms in which the CA list file
// carries it and each record's TSLMetadata, and the plain _md / _ti chains
// handed to callers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "pki/der.h"
#include "quillon32/tsl_metadata.h"

namespace quillon::tsl {

// One national trusted list loaded through the EU list of lists.
struct LoadedTSLInfo {
  char country[2] = {0, 0};             // SchemeTerritory, not terminated
  int32_t sequenceNumber = 0;           // TSLSequenceNumber
  std::optional<std::string> location;  // TSLLocation it was downloaded from

  bool operator==(const LoadedTSLInfo& o) const {
    return country[0] == o.country[0] && country[1] == o.country[1] &&
           sequenceNumber == o.sequenceNumber && location == o.location;
  }
};

// True when |key| is exactly two characters long and equals |country|
// (case-sensitive): the only way a caller's country key matches a record.
bool CountryKeyMatches(const char* key, const char country[2]);

// The ordered register of loaded lists, at most one record per country; a
// list loaded again moves to the end.
class LoadedTslRegister {
 public:
  const std::vector<LoadedTSLInfo>& items() const { return items_; }
  bool empty() const { return items_.empty(); }
  void clear() { items_.clear(); }

  // The record of |key| (see CountryKeyMatches), or null.
  const LoadedTSLInfo* find(const char* key) const;
  // Removes the first record of the same country and appends |info|.
  void record(LoadedTSLInfo info);
  // Removes the first record of |key|; false when there was none.
  bool remove(const char* key);

  // Appends the DER form (below) to |out|; nothing when the register is empty.
  void encode(std::vector<uint8_t>* out) const;
  // Replaces the content with the register encoded in |element| (one whole
  // SEQUENCE). False, register unchanged, on malformed input.
  [[nodiscard]] bool decode(der::Input element);

  // The register as a chain of _ti records in order (null when empty); the
  // caller owns every record and text (malloc).
  _ti* makeInfoChain() const;
  // One _ti record of |info| (next null).
  static _ti* makeInfo(const LoadedTSLInfo& info);

 private:
  std::vector<LoadedTSLInfo> items_;
};

// Most history entries read back for one record; a file claiming more is
// treated as damaged.
inline constexpr size_t kMaxHistoryEntries = 1024;

// Appends the DER form of |metadata| with its history chain to |out|.
void EncodeTslMetadata(const TSLMetadata& metadata, std::vector<uint8_t>* out);
// Decodes one whole TSLMetadata element into |out| (replacing its content).
// False on malformed input.
[[nodiscard]] bool DecodeTslMetadata(der::Input element, TSLMetadata* out);

// The metadata as a chain of _md records (the record, then its history);
// the caller owns every record and text (malloc).
_md* MakeMetadataChain(const TSLMetadata& metadata);

// Signed 32-bit INTEGERs: minimal two's complement content.
void AppendInt32(int32_t value, std::vector<uint8_t>* out);
[[nodiscard]] bool ReadInt32(der::Parser* parser, int32_t* out);

}  // namespace quillon::tsl
