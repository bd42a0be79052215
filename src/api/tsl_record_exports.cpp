// Exported release functions of the trusted-list records handed to callers.
#include <cstdlib>

#include "quillon32/quillon32.h"

void cache_releaseTSLMetadata(TSLMetadata* metadata) { delete metadata; }

// Only the record itself: its texts and the records chained behind it are
// the caller's to free.
void cache_release_tslMetadata(_md* record) { std::free(record); }
void cache_release_tslInfo(_ti* record) { std::free(record); }
