#include "tsl/tsl_records.h"

#include "tsl/malloc_text.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace quillon::tsl {

using der::Input;
using der::Parser;
using der::Writer;

namespace {

constexpr der::Tag kCountryTag = der::ContextSpecific(0);
constexpr der::Tag kServiceTypeTag = der::ContextSpecific(1);
constexpr der::Tag kServiceNameTag = der::ContextSpecific(2);
constexpr der::Tag kServiceStatusTag = der::ContextSpecific(3);
constexpr der::Tag kStatusStartingTimeTag = der::ContextSpecific(4);

Input TextInput(const char* text) { return Input(std::string_view(text)); }

// A text read back from the file must not hold a NUL: the records hand
// texts out as C strings.
bool ReadOptionalText(Parser* p, der::Tag tag, std::optional<std::string>* out) {
  Input v;
  bool present = false;
  if (!p->ReadOptional(tag, &v, &present)) return false;
  if (!present) return true;
  if (std::memchr(v.data(), 0, v.size()) != nullptr) return false;
  *out = std::string(v.AsStringView());
  return true;
}

template <class T>
T* MallocRecord() {
  T* r = static_cast<T*>(std::calloc(1, sizeof(T)));
  if (!r) throw std::bad_alloc();
  return r;
}

void FreeMd(_md* r) {
  while (r) {
    _md* next = r->next;
    std::free(r->serviceType);
    std::free(r->serviceName);
    std::free(r->serviceStatus);
    std::free(r->statusStartingTime);
    std::free(r);
    r = next;
  }
}

void FreeTi(_ti* r) {
  while (r) {
    _ti* next = r->next;
    std::free(r->country);
    std::free(r->location);
    std::free(r);
    r = next;
  }
}

}  // namespace

void AppendInt32(int32_t value, std::vector<uint8_t>* out) {
  uint8_t bytes[4];
  for (int i = 0; i < 4; ++i)
    bytes[i] = static_cast<uint8_t>(static_cast<uint32_t>(value) >> (24 - 8 * i));
  // Minimal two's complement: drop a leading octet that only repeats the
  // sign of the next one.
  int start = 0;
  while (start < 3 && ((bytes[start] == 0x00 && !(bytes[start + 1] & 0x80)) ||
                       (bytes[start] == 0xFF && (bytes[start + 1] & 0x80)))) {
    ++start;
  }
  der::AppendHeader(der::kInteger, static_cast<size_t>(4 - start), out);
  out->insert(out->end(), bytes + start, bytes + 4);
}

bool ReadInt32(Parser* parser, int32_t* out) {
  Input v;
  if (!parser->ReadInteger(&v) || v.size() > 4) return false;
  uint32_t r = (v[0] & 0x80) ? 0xFFFFFFFFu : 0u;
  for (uint8_t b : v) r = (r << 8) | b;
  *out = static_cast<int32_t>(r);
  return true;
}

bool CountryKeyMatches(const char* key, const char country[2]) {
  return key && key[0] != '\0' && key[1] != '\0' && key[2] == '\0' && key[0] == country[0] &&
         key[1] == country[1];
}

const LoadedTSLInfo* LoadedTslRegister::find(const char* key) const {
  for (const auto& info : items_) {
    if (CountryKeyMatches(key, info.country)) return &info;
  }
  return nullptr;
}

void LoadedTslRegister::record(LoadedTSLInfo info) {
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    if (it->country[0] == info.country[0] && it->country[1] == info.country[1]) {
      items_.erase(it);
      break;
    }
  }
  items_.push_back(std::move(info));
}

bool LoadedTslRegister::remove(const char* key) {
  for (auto it = items_.begin(); it != items_.end(); ++it) {
    if (CountryKeyMatches(key, it->country)) {
      items_.erase(it);
      return true;
    }
  }
  return false;
}

// LoadedTSLInfos ::= SEQUENCE OF LoadedTSLInfo      -- register order
// LoadedTSLInfo ::= SEQUENCE {
//   country         OCTET STRING (SIZE (2)),         -- SchemeTerritory
//   sequenceNumber  INTEGER (-2147483648..2147483647),
//   location        UTF8String OPTIONAL }            -- TSLLocation
void LoadedTslRegister::encode(std::vector<uint8_t>* out) const {
  if (items_.empty()) return;
  Writer w(out);
  w.Open(der::kSequence);
  for (const auto& info : items_) {
    w.Open(der::kSequence);
    w.AddTLV(der::kOctetString,
             Input(reinterpret_cast<const uint8_t*>(info.country), sizeof info.country));
    AppendInt32(info.sequenceNumber, out);
    if (info.location) w.AddTLV(der::kUtf8String, Input(std::string_view(*info.location)));
    w.Close();
  }
  w.Close();
}

bool LoadedTslRegister::decode(Input element) {
  Parser outer(element);
  Parser list;
  if (!outer.ReadSequence(&list) || outer.HasMore()) return false;
  LoadedTslRegister fresh;
  while (list.HasMore()) {
    Parser p;
    Input country;
    LoadedTSLInfo info;
    if (!list.ReadSequence(&p) || !p.Read(der::kOctetString, &country) || country.size() != 2 ||
        !ReadInt32(&p, &info.sequenceNumber) ||
        !ReadOptionalText(&p, der::kUtf8String, &info.location) || p.HasMore()) {
      return false;
    }
    info.country[0] = static_cast<char>(country[0]);
    info.country[1] = static_cast<char>(country[1]);
    fresh.record(std::move(info));
  }
  if (!list.Remaining().empty()) return false;  // the list parser failed mid-way
  items_ = std::move(fresh.items_);
  return true;
}

_ti* LoadedTslRegister::makeInfo(const LoadedTSLInfo& info) {
  _ti* r = MallocRecord<_ti>();
  try {
    const char country[3] = {info.country[0], info.country[1], '\0'};
    r->country = MallocText(country);
    r->location = info.location ? MallocText(info.location->c_str()) : nullptr;
    r->sequenceNumber = info.sequenceNumber;
  } catch (...) {
    FreeTi(r);
    throw;
  }
  return r;
}

_ti* LoadedTslRegister::makeInfoChain() const {
  _ti* head = nullptr;
  _ti** tail = &head;
  try {
    for (const auto& info : items_) {
      *tail = makeInfo(info);
      tail = &(*tail)->next;
    }
  } catch (...) {
    FreeTi(head);
    throw;
  }
  return head;
}

// TSLMetadata ::= SEQUENCE SIZE (1..MAX) OF ServiceEntry
//   -- the service as it stands, then its history entries in document order
// ServiceEntry ::= SEQUENCE {
//   country            [0] IMPLICIT OCTET STRING (SIZE (2)) OPTIONAL,  -- absent: none
//   serviceType        [1] IMPLICIT UTF8String OPTIONAL,
//   serviceName        [2] IMPLICIT UTF8String OPTIONAL,
//   serviceStatus      [3] IMPLICIT UTF8String OPTIONAL,
//   statusStartingTime [4] IMPLICIT UTF8String OPTIONAL }
void EncodeTslMetadata(const TSLMetadata& metadata, std::vector<uint8_t>* out) {
  Writer w(out);
  w.Open(der::kSequence);
  for (const TSLMetadata* m = &metadata; m; m = m->history()) {
    w.Open(der::kSequence);
    if (m->hasCountry()) {
      w.AddTLV(kCountryTag, Input(reinterpret_cast<const uint8_t*>(m->country()), 2));
    }
    if (m->serviceType()) w.AddTLV(kServiceTypeTag, TextInput(m->serviceType()));
    if (m->serviceName()) w.AddTLV(kServiceNameTag, TextInput(m->serviceName()));
    if (m->serviceStatus()) w.AddTLV(kServiceStatusTag, TextInput(m->serviceStatus()));
    if (m->statusStartingTime()) {
      w.AddTLV(kStatusStartingTimeTag, TextInput(m->statusStartingTime()));
    }
    w.Close();
  }
  w.Close();
}

bool DecodeTslMetadata(Input element, TSLMetadata* out) {
  Parser outer(element);
  Parser list;
  if (!outer.ReadSequence(&list) || outer.HasMore() || !list.HasMore()) return false;
  TSLMetadata head;
  TSLMetadata* current = nullptr;
  size_t entries = 0;
  while (list.HasMore()) {
    if (++entries > kMaxHistoryEntries + 1) return false;
    Parser p;
    Input country;
    bool has_country = false;
    std::optional<std::string> type, name, status, since;
    if (!list.ReadSequence(&p) || !p.ReadOptional(kCountryTag, &country, &has_country) ||
        (has_country && country.size() != 2) || !ReadOptionalText(&p, kServiceTypeTag, &type) ||
        !ReadOptionalText(&p, kServiceNameTag, &name) ||
        !ReadOptionalText(&p, kServiceStatusTag, &status) ||
        !ReadOptionalText(&p, kStatusStartingTimeTag, &since) || p.HasMore()) {
      return false;
    }
    TSLMetadata* m = current ? new TSLMetadata : &head;
    if (current) current->setHistory(m);
    current = m;
    if (has_country) {
      const char c[3] = {static_cast<char>(country[0]), static_cast<char>(country[1]), '\0'};
      // Both octets are kept as they are, zeros included.
      m->setCountry(c);
      if (c[0] == '\0' && c[1] != '\0') return false;  // not a text setCountry can hold
    }
    m->setServiceType(type ? type->c_str() : nullptr);
    m->setServiceName(name ? name->c_str() : nullptr);
    m->setServiceStatus(status ? status->c_str() : nullptr);
    m->setStatusStartingTime(since ? since->c_str() : nullptr);
  }
  if (!list.Remaining().empty()) return false;
  *out = std::move(head);
  return true;
}

_md* MakeMetadataChain(const TSLMetadata& metadata) {
  _md* head = nullptr;
  _md** tail = &head;
  try {
    for (const TSLMetadata* m = &metadata; m; m = m->history()) {
      _md* r = MallocRecord<_md>();
      *tail = r;
      tail = &r->next;
      r->serviceType = MallocText(m->serviceType());
      r->serviceName = MallocText(m->serviceName());
      r->serviceStatus = MallocText(m->serviceStatus());
      r->statusStartingTime = MallocText(m->statusStartingTime());
    }
  } catch (...) {
    FreeMd(head);
    throw;
  }
  return head;
}

}  // namespace quillon::tsl
