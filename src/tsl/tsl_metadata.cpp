#include "quillon32/tsl_metadata.h"

#include "tsl/malloc_text.h"

#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace {

void Replace(char** field, const char* text) {
  char* copy = quillon::tsl::MallocText(text);
  std::free(*field);
  *field = copy;
}

bool SameText(const char* a, const char* b) {
  if (!a || !b) return a == b;
  return std::strcmp(a, b) == 0;
}

}  // namespace

// One record at a time, so that a long history cannot exhaust the stack
// through nested destructors.
void TSLMetadata::deleteChain(TSLMetadata* head) {
  while (head) {
    TSLMetadata* next = head->history_;
    head->history_ = nullptr;
    delete head;
    head = next;
  }
}

TSLMetadata::TSLMetadata() : country_{0, 0} {}

TSLMetadata::TSLMetadata(const TSLMetadata& other) : TSLMetadata() { *this = other; }

TSLMetadata& TSLMetadata::operator=(const TSLMetadata& other) {
  if (this == &other) return *this;
  TSLMetadata fresh;
  // Copy the chain iteratively: each record copies its own fields, the
  // links are made here.
  TSLMetadata* tail = &fresh;
  for (const TSLMetadata* from = &other; from; from = from->history_) {
    TSLMetadata* to = from == &other ? &fresh : new TSLMetadata;
    if (to != &fresh) {
      tail->history_ = to;
      tail = to;
    }
    std::memcpy(to->country_, from->country_, sizeof country_);
    to->serviceType_ = quillon::tsl::MallocText(from->serviceType_);
    to->serviceName_ = quillon::tsl::MallocText(from->serviceName_);
    to->serviceStatus_ = quillon::tsl::MallocText(from->serviceStatus_);
    to->statusStartingTime_ = quillon::tsl::MallocText(from->statusStartingTime_);
  }
  *this = std::move(fresh);
  return *this;
}

TSLMetadata::TSLMetadata(TSLMetadata&& other) noexcept : TSLMetadata() { *this = std::move(other); }

TSLMetadata& TSLMetadata::operator=(TSLMetadata&& other) noexcept {
  if (this == &other) return *this;
  reset();
  std::memcpy(country_, other.country_, sizeof country_);
  serviceType_ = other.serviceType_;
  serviceName_ = other.serviceName_;
  serviceStatus_ = other.serviceStatus_;
  statusStartingTime_ = other.statusStartingTime_;
  history_ = other.history_;
  other.country_[0] = other.country_[1] = '\0';
  other.serviceType_ = other.serviceName_ = other.serviceStatus_ = nullptr;
  other.statusStartingTime_ = nullptr;
  other.history_ = nullptr;
  return *this;
}

TSLMetadata::~TSLMetadata() { reset(); }

void TSLMetadata::reset() {
  std::free(serviceType_);
  std::free(serviceName_);
  std::free(serviceStatus_);
  std::free(statusStartingTime_);
  serviceType_ = serviceName_ = serviceStatus_ = statusStartingTime_ = nullptr;
  country_[0] = country_[1] = '\0';
  TSLMetadata* chain = history_;
  history_ = nullptr;
  deleteChain(chain);
}

TSLMetadata* TSLMetadata::copy() const { return new (std::nothrow) TSLMetadata(*this); }

void TSLMetadata::setCountry(const char* country) {
  country_[0] = country_[1] = '\0';
  if (!country || country[0] == '\0') return;
  country_[0] = country[0];
  country_[1] = country[1];  // '\0' for a one-character text
}

char* TSLMetadata::getCountry() const {
  if (!hasCountry()) return nullptr;
  char text[3] = {country_[0], country_[1], '\0'};
  return quillon::tsl::MallocText(text);
}

void TSLMetadata::setServiceType(const char* text) { Replace(&serviceType_, text); }
void TSLMetadata::setServiceName(const char* text) { Replace(&serviceName_, text); }
void TSLMetadata::setServiceStatus(const char* text) { Replace(&serviceStatus_, text); }
void TSLMetadata::setStatusStartingTime(const char* text) { Replace(&statusStartingTime_, text); }
char* TSLMetadata::getServiceType() const { return quillon::tsl::MallocText(serviceType_); }
char* TSLMetadata::getServiceName() const { return quillon::tsl::MallocText(serviceName_); }
char* TSLMetadata::getServiceStatus() const { return quillon::tsl::MallocText(serviceStatus_); }
char* TSLMetadata::getStatusStartingTime() const { return quillon::tsl::MallocText(statusStartingTime_); }

void TSLMetadata::setHistory(TSLMetadata* next) {
  if (next == history_) return;
  TSLMetadata* old = history_;
  history_ = next;
  deleteChain(old);
}

TSLMetadata* TSLMetadata::getHistory() const {
  return history_ ? new TSLMetadata(*history_) : nullptr;
}

bool TSLMetadata::operator==(const TSLMetadata& other) const {
  const TSLMetadata* a = this;
  const TSLMetadata* b = &other;
  for (; a && b; a = a->history_, b = b->history_) {
    if (std::memcmp(a->country_, b->country_, sizeof country_) != 0 ||
        !SameText(a->serviceType_, b->serviceType_) ||
        !SameText(a->serviceName_, b->serviceName_) ||
        !SameText(a->serviceStatus_, b->serviceStatus_) ||
        !SameText(a->statusStartingTime_, b->statusStartingTime_)) {
      return false;
    }
  }
  return a == nullptr && b == nullptr;
}
