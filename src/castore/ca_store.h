// The CA table: the process-wide set of trusted CA certificates, grouped by
// subject. One entry per distinct subject-name text (compared without regard
// to ASCII letter case), each holding the records of the certificates with
// that subject, told apart by issuer name and serial number. Every record
// remembers its source and, for trusted-list certificates, the list's
// metadata.
//
// Callers see the table as an ordered array of entries (indexes 0..count-1,
// no gaps, in the order subjects first arrived) and each entry as an ordered
// list of records. Beside that order the table keeps two indexes, so that
// the look-ups callers make for every check do not scan it:
//   - subject-name text (case-folded) -> entry index;
//   - per entry, record identity (issuer text, serial hex) -> record index
//     (a map for entries of more than a few records; the few are compared
//     directly, which is faster than hashing).
// Every change below keeps both consistent with the order.
//
// Not thread-safe: the library runs every operation under the CA table guard.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "pki/crypto_device.h"
#include "quillon32/attribute_certificate.h"
#include "quillon32/big_integer.h"
#include "quillon32/certificate.h"
#include "quillon32/certificate_list.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/tsl_metadata.h"

namespace quillon::castore {

// The table holds at most this many entries (distinct subjects); a record
// for a subject already present is always accepted.
inline constexpr int kMaxEntries = 2048;

// Where a record came from.
enum SourceCode : int32_t {
  kSourceTrustedList = 1,   // a trusted list, with its metadata
  kSourcePemList = 2,       // a PEM list file that initialised the table
  kSourceCaller = 3,        // added by the caller
  kSourceKeepExisting = 4,  // never replaces a record already present
  // Any other value is the caller's own.
};

// The text under which a subject is kept: the one name printer's text, so
// that keys saved to the CA list file read back the same.
inline std::string KeyText(const Name& name) { return name.toString(); }

// The identity of a record within its entry: issuer-name text and serial
// number in base 16, as one string.
std::string RecordId(std::string_view issuer_text, std::string_view serial_hex);
// The same written over the text in |*id|, whose storage is reused.
void RecordId(const Name& issuer, const BigInteger& serial, std::string* id);
inline std::string RecordId(const Name& issuer, const BigInteger& serial) {
  std::string id;
  RecordId(issuer, serial, &id);
  return id;
}

// Where a certificate's issuer name and serial number (and, when |subject|
// is given, its subject name) lie in its DER bytes. False when the bytes are
// not the outline of a certificate: SEQUENCE { SEQUENCE { [0] version
// OPTIONAL, INTEGER, SEQUENCE, Name, ... }, SEQUENCE, BIT STRING } and
// nothing after it, with "SEQUENCE, Name" (validity, subject) behind the
// issuer when the subject is asked for. Only the outline is read.
[[nodiscard]] bool CertificateOutline(der::Input certificate, der::Input* issuer,
                                      der::Input* serial_content,
                                      der::Input* subject = nullptr);

// A record's certificate. One added by a caller is kept decoded; one read
// back from the CA list file is kept as a view of the file's bytes (shared by
// all records read from it) and decoded the first time it is used, so that
// loading a full table decodes no certificate.
class CaCertificate {
 public:
  using Bytes = std::vector<uint8_t>;

  explicit CaCertificate(const Certificate& decoded);
  // |der| lies within |*file| and must have the outline of a certificate
  // (see CertificateOutline).
  CaCertificate(std::shared_ptr<const Bytes> file, der::Input der);
  CaCertificate(const CaCertificate&) = delete;
  CaCertificate& operator=(const CaCertificate&) = delete;

  // The DER bytes.
  ByteView der() const;
  // The Name element of the issuer, within der().
  ByteView issuerBytes() const;
  // The decoded certificate; null when its bytes do not decode (a file
  // damaged inside a certificate's content). Safe to call from several
  // threads at once.
  const Certificate* get() const;

 private:
  std::shared_ptr<const Bytes> file_;  // null when made from a decoded certificate
  der::Input der_;                     // within *file_
  mutable std::once_flag decode_once_;
  mutable std::unique_ptr<Certificate> decoded_;
};

// The empty name, shared.
const std::shared_ptr<const Name>& NoIssuer();

struct CaRecord {
  std::unique_ptr<CaCertificate> certificate;  // the record's own copy; null when none
  // The issuer's name, shared by the records that have the same one; never null.
  std::shared_ptr<const Name> issuer = NoIssuer();
  BigInteger serial;
  int32_t source = kSourceCaller;
  int32_t spare = 0;  // a further value a record carries; neither saved nor handed out
  std::unique_ptr<TSLMetadata> metadata;  // trusted-list metadata, or null
  std::string id;                         // RecordId(issuer, serial), kept for the entry's index

  // The decoded certificate, or null.
  const Certificate* cert() const { return certificate ? certificate->get() : nullptr; }
};

class CaEntry {
 public:
  const std::string& key() const { return key_; }
  int size() const { return static_cast<int>(records_.size()); }
  const CaRecord& record(int i) const { return records_[static_cast<size_t>(i)]; }
  // Index of the record with identity |id|, or -1.
  int find(std::string_view id) const;

 private:
  friend class CaStore;
  void append(CaRecord record);
  void erase(int i);
  void reindex();

  // Entries hold a handful of records, whose cached identities are compared
  // one by one; the map is kept only for an entry holding more.
  static constexpr size_t kScanLimit = 4;

  static uint64_t HashOfId(std::string_view id) { return std::hash<std::string_view>{}(id); }

  std::string key_;
  std::vector<CaRecord> records_;
  // HashOfId of the ids of the first kScanLimit records, held in the entry
  // itself: the scan compares these and reads the id text of a likely match
  // only.
  std::array<uint64_t, kScanLimit> id_hashes_{};
  struct IdHash {
    using is_transparent = void;
    size_t operator()(std::string_view s) const noexcept {
      return std::hash<std::string_view>{}(s);
    }
  };
  // id -> index in records_, for entries of more than kScanLimit records.
  std::unordered_map<std::string, int, IdHash, std::equal_to<>> positions_;
};

// Case-insensitive (ASCII) hashing and equality of key texts, the way the
// C runtime's case-insensitive comparison treats them.
struct FoldedHash {
  using is_transparent = void;
  size_t operator()(std::string_view s) const noexcept;
};
struct FoldedEqual {
  using is_transparent = void;
  bool operator()(std::string_view a, std::string_view b) const noexcept;
};

// The index of entries by key text, ignoring ASCII case: an open-addressing
// table of (folded hash, key bytes, entry index). A look-up hashes the
// query once and touches one slot and the one matching key; the keys stay
// in their entries, whose heap place does not change while they live.
class KeyIndex {
 public:
  // Adds |key| (held by the caller for as long as it is indexed) for entry
  // |entry|; the key must not be indexed already.
  void insert(const std::string& key, int entry);
  // The entry of |key|, or -1.
  int find(std::string_view key) const;
  void clear();
  size_t size() const { return count_; }

 private:
  struct Slot {
    uint64_t hash = 0;
    const char* key = nullptr;
    uint32_t size = 0;
    int32_t entry = -1;  // -1: empty
  };
  void grow();

  std::vector<Slot> slots_;  // a power of two in size, at most half full
  size_t count_ = 0;
};

enum class AddOutcome {
  kAppended,      // a new record at the end of its entry
  kReplaced,      // the earlier record with the same identity removed, the new one appended
  kKeptExisting,  // source 4 met a record with the same identity: nothing changed
  kTableFull,     // a new subject while the table holds kMaxEntries: nothing changed
};

class CaStore {
 public:
  CaStore();
  CaStore(CaStore&&) noexcept = default;
  CaStore& operator=(CaStore&&) noexcept = default;

  int count() const { return static_cast<int>(entries_.size()); }
  bool empty() const { return entries_.empty(); }
  // |i| must be in 0..count()-1.
  const CaEntry& entry(int i) const { return at(i); }
  // The record, or null when either index is out of range.
  const CaRecord* record(int entry, int record) const;
  size_t recordCount() const;

  // Index of the entry whose key equals |key| ignoring ASCII case, or -1.
  int findEntry(std::string_view key) const;
  int findEntry(const Name& subject) const { return findEntry(KeyText(subject)); }
  // Index of the record in entry |entry| with that issuer and serial, or -1
  // (also for an entry index out of range).
  int findRecord(int entry, const Name& issuer, const BigInteger& serial) const;
  int findRecord(int entry, std::string_view id) const;
  // The record of |cert| (by subject, issuer and serial), or null.
  const CaRecord* findCertificate(const Certificate& cert, int* entry = nullptr,
                                  int* record = nullptr) const;

  // Adds a copy of |cert| (and of |metadata| when given) with |source|.
  // A record with the same identity is replaced and the new one goes to the
  // end of its entry, except under kSourceKeepExisting, which keeps the old
  // one. *new_entry tells whether the subject was new. |cert| must be decoded.
  AddOutcome add(const Certificate& cert, int32_t source, const TSLMetadata* metadata,
                 bool* new_entry = nullptr);
  // Appends a record read back from the CA list file to the entry |key|,
  // creating the entry at the end when absent. False, nothing changed, when
  // the table is full and |key| is new, or when the entry already holds a
  // record with the same identity.
  bool append(std::string_view key, CaRecord record);

  // Removes the record with that subject, issuer and serial; an entry left
  // empty goes and the entries behind it move up. False when not found.
  bool remove(const Name& subject, const Name& issuer, const BigInteger& serial);
  bool remove(const Certificate& cert);
  // Removes records of |source|. Within each entry the walk goes by position
  // and does not look again at the position it removed from, so of two
  // adjacent records of |source| the second stays (a second call removes it).
  // Entries left empty go; the order of the others is kept.
  void removeSource(int32_t source);
  void clear();

  // The index of the record in entry |entry| whose certificate issued a
  // signed object: with |aki|, the first record whose subject key identifier
  // equals its key identifier; otherwise, or when none does, the first
  // record whose public key verifies the signature on |device|. -1 when none
  // (or when |entry| is out of range).
  int findIssuer(int entry, const AuthorityKeyIdentifier* aki, ByteView signed_bytes,
                 ByteView signature_algorithm, ByteView signature,
                 const pki::CryptoDevice* device) const;
  int findIssuer(int entry, const Certificate& cert, const AuthorityKeyIdentifier* aki,
                 const pki::CryptoDevice* device) const;
  int findIssuer(int entry, const AttributeCertificate& cert, const AuthorityKeyIdentifier* aki,
                 const pki::CryptoDevice* device) const;
  int findIssuer(int entry, const CertificateList& crl, const AuthorityKeyIdentifier* aki,
                 const pki::CryptoDevice* device) const;

  // True when both indexes agree with the table (for tests).
  bool indexesConsistent() const;

 private:
  int appendEntry(std::string_view key);
  void eraseEntry(int index);
  void rebuildIndex();

  CaEntry& at(int i) { return *entries_[static_cast<size_t>(i)]; }
  const CaEntry& at(int i) const { return *entries_[static_cast<size_t>(i)]; }

  // Entries are held by pointer: moving them up after a removal moves
  // pointers, and the array stays small.
  std::vector<std::unique_ptr<CaEntry>> entries_;
  KeyIndex index_;
};

}  // namespace quillon::castore
