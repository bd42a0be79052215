// Trusted-list metadata kept with CA certificates, and the plain records in
// which the library hands it and the register of loaded trusted lists out.
#pragma once

#include "quillon32/export.h"

// TSLMetadata: what a trusted list (ETSI TS 119 612) says about the trust
// service a CA certificate belongs to. One record describes the service as
// it stands; its history link leads to a chain of records, one per
// ServiceHistoryInstance of the service, in document order.
//
// Texts are owned by the record. Each setter frees the text it replaces and
// keeps its own copy of the new one (null leaves the field absent). Each
// get* function returns a new copy allocated with malloc, which the caller
// frees (cache_releaseCharArray), or null when the field is absent.
// Deleting a record deletes its texts and its whole history chain; copying
// one copies the whole chain.
class QUILLON32_API TSLMetadata {
 public:
  // An empty record: no country (two zero bytes), no texts, no history.
  TSLMetadata();
  TSLMetadata(const TSLMetadata& other);
  TSLMetadata& operator=(const TSLMetadata& other);
  TSLMetadata(TSLMetadata&& other) noexcept;
  TSLMetadata& operator=(TSLMetadata&& other) noexcept;
  ~TSLMetadata();

  // A new deep copy (history chain included); the caller deletes it
  // (cache_releaseTSLMetadata). Null only when memory runs out.
  TSLMetadata* copy() const;

  // The territory of the list (SchemeTerritory): its first two characters
  // are kept, without a terminator; null or "" clears it.
  void setCountry(const char* country);
  // "IT" and the like as a new text, or null when no country is set.
  char* getCountry() const;
  // The two characters as stored (not terminated; two zero bytes when none).
  const char* country() const { return country_; }
  bool hasCountry() const { return country_[0] != '\0' || country_[1] != '\0'; }

  void setServiceType(const char* text);         // ServiceTypeIdentifier
  void setServiceName(const char* text);         // first Name of the service
  void setServiceStatus(const char* text);       // ServiceStatus
  void setStatusStartingTime(const char* text);  // StatusStartingTime, XML dateTime text
  char* getServiceType() const;
  char* getServiceName() const;
  char* getServiceStatus() const;
  char* getStatusStartingTime() const;

  // The stored texts without copying (null when absent), valid while the
  // record lives and the field is not set again.
  const char* serviceType() const { return serviceType_; }
  const char* serviceName() const { return serviceName_; }
  const char* serviceStatus() const { return serviceStatus_; }
  const char* statusStartingTime() const { return statusStartingTime_; }

  // Links |next| (taken over; may be null) as this record's history, after
  // deleting the chain linked before.
  void setHistory(TSLMetadata* next);
  // A new copy of the history chain, or null when there is none.
  TSLMetadata* getHistory() const;
  // The history chain itself, owned by this record.
  const TSLMetadata* history() const { return history_; }
  TSLMetadata* history() { return history_; }

  // Equal country, texts and history chains.
  bool operator==(const TSLMetadata& other) const;
  bool operator!=(const TSLMetadata& other) const { return !(*this == other); }

 private:
  void reset();
  static void deleteChain(TSLMetadata* head);

  char country_[2];
  char* serviceType_ = nullptr;
  char* serviceName_ = nullptr;
  char* serviceStatus_ = nullptr;
  char* statusStartingTime_ = nullptr;
  TSLMetadata* history_ = nullptr;
};

// The metadata of one CA certificate as a chain of plain records: the first
// is the service's current entry, the following ones its history entries in
// document order. Records and texts are allocated with malloc.
// cache_release_tslMetadata frees one record only: the caller frees each
// text with cache_releaseCharArray and walks |next| itself.
struct _md {
  char* serviceType;         // service type URI, or null
  char* serviceName;         // service name, or null
  char* serviceStatus;       // service status URI, or null
  char* statusStartingTime;  // XML dateTime text as in the list, or null
  _md* next;                 // next (older) entry, null at the end
};

// One loaded national trusted list, in the same plain form and with the same
// release rule (cache_release_tslInfo frees only the record).
struct _ti {
  char* country;       // SchemeTerritory: two characters and a terminator
  char* location;      // TSLLocation the list came from, or null
  int sequenceNumber;  // TSLSequenceNumber
  _ti* next;           // next record, null at the end
};
