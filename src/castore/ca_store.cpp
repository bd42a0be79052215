#include "castore/ca_store.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "pki/name_der.h"
#include "pki/x509_common.h"

namespace quillon::castore {

namespace {

der::Input In(ByteView v) { return der::Input(v.data, v.size); }

}  // namespace

std::string RecordId(std::string_view issuer_text, std::string_view serial_hex) {
  // The name printer writes a NUL character as "\00", so a raw NUL cannot
  // occur in either text and separates them unambiguously.
  std::string id;
  id.reserve(issuer_text.size() + 1 + serial_hex.size());
  id.append(issuer_text);
  id.push_back('\0');
  id.append(serial_hex);
  return id;
}

void RecordId(const Name& issuer, const BigInteger& serial, std::string* id) {
  pki::PrintName(issuer, id);
  id->push_back('\0');
  pki::AppendHex(serial, id);
}

namespace {

// Eight bytes at a time, with ASCII upper-case letters turned to lower case
// (bytes 0x80 and above untouched): keys are compared and hashed on this
// folded form without making a folded copy.
inline uint64_t Load(const char* p, size_t n) {
  uint64_t v = 0;
  std::memcpy(&v, p, n);
  return v;
}

inline uint64_t FoldWord(uint64_t x) {
  constexpr uint64_t kHigh = 0x8080808080808080ull;
  constexpr uint64_t kLow7 = 0x7F7F7F7F7F7F7F7Full;
  const uint64_t seven = x & kLow7;
  const uint64_t at_least_a = seven + 0x3F3F3F3F3F3F3F3Full;  // high bit: byte >= 'A'
  const uint64_t above_z = seven + 0x2525252525252525ull;     // high bit: byte > 'Z'
  const uint64_t upper = (at_least_a & ~above_z) & ~x & kHigh;
  return x | (upper >> 2);  // 0x80 >> 2 = 0x20, the case bit
}

inline uint64_t Mix(uint64_t h, uint64_t w) {
  h ^= w;
  h *= 0x9E3779B97F4A7C15ull;
  return h ^ (h >> 29);
}

}  // namespace

void KeyIndex::insert(const std::string& key, int entry) {
  if ((count_ + 1) * 2 > slots_.size()) grow();
  const uint64_t hash = FoldedHash{}(key);
  const size_t mask = slots_.size() - 1;
  size_t i = static_cast<size_t>(hash) & mask;
  while (slots_[i].entry >= 0) i = (i + 1) & mask;
  slots_[i] = Slot{hash, key.data(), static_cast<uint32_t>(key.size()), entry};
  ++count_;
}

int KeyIndex::find(std::string_view key) const {
  if (slots_.empty()) return -1;
  const uint64_t hash = FoldedHash{}(key);
  const size_t mask = slots_.size() - 1;
  for (size_t i = static_cast<size_t>(hash) & mask;; i = (i + 1) & mask) {
    const Slot& slot = slots_[i];
    if (slot.entry < 0) return -1;
    if (slot.hash == hash && FoldedEqual{}(key, std::string_view(slot.key, slot.size))) {
      return slot.entry;
    }
  }
}

void KeyIndex::clear() {
  slots_.clear();
  count_ = 0;
}

void KeyIndex::grow() {
  std::vector<Slot> old = std::move(slots_);
  slots_.assign(old.empty() ? 64 : old.size() * 2, Slot{});
  const size_t mask = slots_.size() - 1;
  for (const Slot& slot : old) {
    if (slot.entry < 0) continue;
    size_t i = static_cast<size_t>(slot.hash) & mask;
    while (slots_[i].entry >= 0) i = (i + 1) & mask;
    slots_[i] = slot;
  }
}

const std::shared_ptr<const Name>& NoIssuer() {
  static const std::shared_ptr<const Name> none = std::make_shared<const Name>();
  return none;
}

size_t FoldedHash::operator()(std::string_view s) const noexcept {
  uint64_t h = s.size();
  size_t i = 0;
  for (; i + 8 <= s.size(); i += 8) h = Mix(h, FoldWord(Load(s.data() + i, 8)));
  if (i < s.size()) h = Mix(h, FoldWord(Load(s.data() + i, s.size() - i)));
  return static_cast<size_t>(h);
}

bool FoldedEqual::operator()(std::string_view a, std::string_view b) const noexcept {
  if (a.size() != b.size()) return false;
  // Names are mostly asked for as they were printed when stored.
  if (std::memcmp(a.data(), b.data(), a.size()) == 0) return true;
  size_t i = 0;
  for (; i + 8 <= a.size(); i += 8) {
    if (FoldWord(Load(a.data() + i, 8)) != FoldWord(Load(b.data() + i, 8))) return false;
  }
  return i == a.size() ||
         FoldWord(Load(a.data() + i, a.size() - i)) == FoldWord(Load(b.data() + i, a.size() - i));
}

bool CertificateOutline(der::Input certificate, der::Input* issuer, der::Input* serial_content,
                        der::Input* subject) {
  // Certificate ::= SEQUENCE { tbsCertificate, signatureAlgorithm, signatureValue }
  // TBSCertificate ::= SEQUENCE { version [0] EXPLICIT OPTIONAL, serialNumber,
  //   signature AlgorithmIdentifier, issuer Name, validity Validity, subject Name, ... }
  der::Parser top(certificate);
  der::Parser cert, tbs;
  bool has_version = false;
  if (!top.ReadSequence(&cert) || top.HasMore() || !cert.ReadSequence(&tbs) ||
      !cert.Skip(der::kSequence) || !cert.Skip(der::kBitString) || cert.HasMore()) {
    return false;
  }
  der::Tag tag = 0;
  if (!tbs.SkipOptional(der::ContextSpecificConstructed(0), &has_version) ||
      !tbs.Read(der::kInteger, serial_content) || !tbs.Skip(der::kSequence) ||
      !tbs.PeekTag(&tag) || tag != der::kSequence || !tbs.ReadRawTLV(issuer)) {
    return false;
  }
  return !subject || (tbs.Skip(der::kSequence) && tbs.PeekTag(&tag) && tag == der::kSequence &&
                      tbs.ReadRawTLV(subject));
}

CaCertificate::CaCertificate(const Certificate& decoded)
    : decoded_(std::make_unique<Certificate>(decoded)) {}

CaCertificate::CaCertificate(std::shared_ptr<const Bytes> file, der::Input der)
    : file_(std::move(file)), der_(der) {}

ByteView CaCertificate::der() const {
  if (file_) return ByteView{der_.data(), der_.size()};
  return decoded_->der();
}

ByteView CaCertificate::issuerBytes() const {
  der::Input issuer, serial;
  if (!CertificateOutline(In(der()), &issuer, &serial)) return {};
  return ByteView{issuer.data(), issuer.size()};
}

const Certificate* CaCertificate::get() const {
  std::call_once(decode_once_, [this] {
    if (!file_) return;  // made decoded
    auto c = std::make_unique<Certificate>();
    if (c->decode(der_.data(), der_.size())) decoded_ = std::move(c);
  });
  return decoded_.get();
}

// ---------------------------------------------------------------------------
// CaEntry

int CaEntry::find(std::string_view id) const {
  if (positions_.empty()) {
    const uint64_t hash = HashOfId(id);
    for (size_t i = 0; i < records_.size(); ++i) {
      if (id_hashes_[i] == hash && records_[i].id == id) return static_cast<int>(i);
    }
    return -1;
  }
  const auto it = positions_.find(id);
  return it == positions_.end() ? -1 : it->second;
}

void CaEntry::reindex() {
  positions_.clear();
  if (records_.size() <= kScanLimit) return;
  for (size_t i = 0; i < records_.size(); ++i) positions_.emplace(records_[i].id, static_cast<int>(i));
}

void CaEntry::append(CaRecord record) {
  records_.push_back(std::move(record));
  if (records_.size() <= kScanLimit) id_hashes_[records_.size() - 1] = HashOfId(records_.back().id);
  if (records_.size() <= kScanLimit) return;
  if (positions_.empty()) {
    reindex();
  } else {
    positions_.emplace(records_.back().id, static_cast<int>(records_.size() - 1));
  }
}

void CaEntry::erase(int i) {
  records_.erase(records_.begin() + i);
  for (size_t k = 0; k < records_.size() && k < kScanLimit; ++k) {
    id_hashes_[k] = HashOfId(records_[k].id);
  }
  reindex();
}

// ---------------------------------------------------------------------------
// CaStore

CaStore::CaStore() = default;

const CaRecord* CaStore::record(int entry, int record) const {
  if (entry < 0 || entry >= count()) return nullptr;
  const CaEntry& e = at(entry);
  if (record < 0 || record >= e.size()) return nullptr;
  return &e.record(record);
}

size_t CaStore::recordCount() const {
  size_t n = 0;
  for (const auto& e : entries_) n += e->records_.size();
  return n;
}

int CaStore::findEntry(std::string_view key) const { return index_.find(key); }

int CaStore::findRecord(int entry, std::string_view id) const {
  if (entry < 0 || entry >= count()) return -1;
  return at(entry).find(id);
}

int CaStore::findRecord(int entry, const Name& issuer, const BigInteger& serial) const {
  if (entry < 0 || entry >= count()) return -1;
  return findRecord(entry, RecordId(issuer, serial));
}

const CaRecord* CaStore::findCertificate(const Certificate& cert, int* entry, int* record) const {
  const int e = findEntry(cert.subject());
  if (e < 0) return nullptr;
  const int r = findRecord(e, cert.issuer(), cert.serialNumber());
  if (r < 0) return nullptr;
  if (entry) *entry = e;
  if (record) *record = r;
  return &at(e).record(r);
}

int CaStore::appendEntry(std::string_view key) {
  const int index = count();
  auto entry = std::make_unique<CaEntry>();
  entry->key_ = std::string(key);
  entries_.push_back(std::move(entry));
  index_.insert(entries_.back()->key_, index);
  return index;
}

AddOutcome CaStore::add(const Certificate& cert, int32_t source, const TSLMetadata* metadata,
                        bool* new_entry) {
  if (new_entry) *new_entry = false;
  const std::string key = KeyText(cert.subject());
  int e = findEntry(key);
  if (e < 0 && count() >= kMaxEntries) return AddOutcome::kTableFull;

  CaRecord record;
  record.issuer = std::make_shared<const Name>(cert.issuer());
  record.serial = cert.serialNumber();
  record.id = RecordId(*record.issuer, record.serial);
  record.source = source;

  int existing = e < 0 ? -1 : at(e).find(record.id);
  if (existing >= 0 && source == kSourceKeepExisting) return AddOutcome::kKeptExisting;

  // Copies are made before the table changes, so a failed allocation leaves
  // it as it was.
  record.certificate = std::make_unique<CaCertificate>(cert);
  if (metadata) record.metadata = std::make_unique<TSLMetadata>(*metadata);

  if (e < 0) {
    e = appendEntry(key);
    if (new_entry) *new_entry = true;
  }
  CaEntry& entry = at(e);
  if (existing >= 0) entry.erase(existing);
  entry.append(std::move(record));
  return existing >= 0 ? AddOutcome::kReplaced : AddOutcome::kAppended;
}

bool CaStore::append(std::string_view key, CaRecord record) {
  int e = findEntry(key);
  if (e < 0) {
    if (count() >= kMaxEntries) return false;
    e = appendEntry(key);
  } else if (at(e).find(record.id) >= 0) {
    return false;
  }
  at(e).append(std::move(record));
  return true;
}

bool CaStore::remove(const Name& subject, const Name& issuer, const BigInteger& serial) {
  const int e = findEntry(subject);
  if (e < 0) return false;
  CaEntry& entry = at(e);
  const int r = entry.find(RecordId(issuer, serial));
  if (r < 0) return false;
  entry.erase(r);
  if (entry.records_.empty()) eraseEntry(e);
  return true;
}

bool CaStore::remove(const Certificate& cert) {
  return remove(cert.subject(), cert.issuer(), cert.serialNumber());
}

void CaStore::eraseEntry(int index) {
  // The entries behind it move up: the index is made again.
  entries_.erase(entries_.begin() + index);
  rebuildIndex();
}

void CaStore::removeSource(int32_t source) {
  bool removed_entry = false;
  size_t out = 0;
  for (size_t in = 0; in < entries_.size(); ++in) {
    CaEntry& entry = *entries_[in];
    // By position: after removing at i the walk goes on at i + 1, passing
    // over the record that moved into i.
    for (size_t i = 0; i < entry.records_.size(); ++i) {
      if (entry.records_[i].source == source) entry.erase(static_cast<int>(i));
    }
    if (entry.records_.empty()) {
      removed_entry = true;
      continue;
    }
    if (out != in) entries_[out] = std::move(entries_[in]);
    ++out;
  }
  entries_.resize(out);
  if (removed_entry) rebuildIndex();
}

void CaStore::clear() {
  entries_.clear();
  index_.clear();
}

void CaStore::rebuildIndex() {
  index_.clear();
  for (size_t i = 0; i < entries_.size(); ++i) {
    index_.insert(entries_[i]->key_, static_cast<int>(i));
  }
}

int CaStore::findIssuer(int entry, const AuthorityKeyIdentifier* aki, ByteView signed_bytes,
                        ByteView signature_algorithm, ByteView signature,
                        const pki::CryptoDevice* device) const {
  if (entry < 0 || entry >= count()) return -1;
  const CaEntry& e = at(entry);
  if (aki && aki->hasKeyIdentifier()) {
    std::vector<unsigned char> ski;
    for (int i = 0; i < e.size(); ++i) {
      const Certificate* c = e.record(i).cert();
      if (c && c->subjectKeyIdentifier(&ski) && ski == aki->keyIdentifier()) return i;
    }
  }
  if (!device || signature.empty()) return -1;
  for (int i = 0; i < e.size(); ++i) {
    const Certificate* c = e.record(i).cert();
    if (c && device->verify(In(signature_algorithm), In(c->subjectPublicKeyInfo()),
                            In(signed_bytes), In(signature))) {
      return i;
    }
  }
  return -1;
}

int CaStore::findIssuer(int entry, const Certificate& cert, const AuthorityKeyIdentifier* aki,
                        const pki::CryptoDevice* device) const {
  // A signature BIT STRING with unused bits is no signature any algorithm makes.
  const ByteView signature = cert.signatureUnusedBits() == 0 ? cert.signatureValue() : ByteView{};
  return findIssuer(entry, aki, cert.tbsCertificate(), cert.signatureAlgorithm(), signature,
                    device);
}

int CaStore::findIssuer(int entry, const AttributeCertificate& cert,
                        const AuthorityKeyIdentifier* aki, const pki::CryptoDevice* device) const {
  return findIssuer(entry, aki, cert.acinfo(), cert.signatureAlgorithm(), cert.signatureValue(),
                    device);
}

int CaStore::findIssuer(int entry, const CertificateList& crl, const AuthorityKeyIdentifier* aki,
                        const pki::CryptoDevice* device) const {
  return findIssuer(entry, aki, crl.tbsCertList(), crl.signatureAlgorithm(), crl.signatureValue(),
                    device);
}

bool CaStore::indexesConsistent() const {
  if (index_.size() != entries_.size()) return false;
  for (size_t i = 0; i < entries_.size(); ++i) {
    const CaEntry& e = *entries_[i];
    if (findEntry(e.key_) != static_cast<int>(i) || e.records_.empty()) return false;
    for (size_t r = 0; r < e.records_.size() && r < CaEntry::kScanLimit; ++r) {
      if (e.id_hashes_[r] != CaEntry::HashOfId(e.records_[r].id)) return false;
    }
    const bool mapped = e.records_.size() > CaEntry::kScanLimit;
    if (e.positions_.size() != (mapped ? e.records_.size() : 0)) return false;
    for (size_t r = 0; r < e.records_.size(); ++r) {
      if (e.find(e.records_[r].id) != static_cast<int>(r)) return false;
    }
  }
  return true;
}

}  // namespace quillon::castore
