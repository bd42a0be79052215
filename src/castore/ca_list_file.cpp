#include "castore/ca_list_file.h"

#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>

#include "pki/name_der.h"

namespace quillon::castore {

using der::Input;
using der::Parser;
using der::Writer;

namespace {

Input In(ByteView v) { return Input(v.data, v.size); }

void EncodeRecord(const CaRecord& record, std::vector<uint8_t>* out) {
  Writer w(out);
  w.Open(der::kSequence);
  if (record.certificate) {
    w.AddRaw(In(record.certificate->der()));
    // A record with a certificate carries that certificate's issuer: write
    // the name exactly as the certificate holds it.
    w.AddRaw(In(record.certificate->issuerBytes()));
  } else if (!record.issuer->empty()) {
    const std::vector<unsigned char> name = record.issuer->encode();
    w.AddRaw(Input(name.data(), name.size()));
  }
  const std::vector<unsigned char> serial = record.serial.encode();
  w.AddRaw(Input(serial.data(), serial.size()));
  tsl::AppendInt32(record.source, out);
  if (record.metadata) tsl::EncodeTslMetadata(*record.metadata, out);
  w.Close();
}

// Issuer names met while reading one file, by their encoding: a CA list
// holds many certificates of few issuers, whose names are decoded and
// printed once.
struct IssuerName {
  std::shared_ptr<const Name> name;
  std::string text;
};
using IssuerNames = std::unordered_map<std::string_view, IssuerName>;

// The entry whose records are being read: every certificate in it must bear
// the entry's subject, or the table would answer for one CA with another.
// The records of an entry mostly repeat one subject encoding, whose text is
// printed once.
struct EntrySubject {
  std::string_view key;
  Input matched;        // a subject encoding already found to print as |key|
  std::string printed;  // scratch, reused from record to record and entry to entry
};

// True when |subject| prints, through the one name printer that made the
// key when the certificate was added, as the entry's key (ASCII case aside,
// as the table compares keys). A subject met before as an issuer (every
// self-signed root) has its text at hand already.
bool IsEntrySubject(Input subject, const IssuerNames& issuers, EntrySubject* entry) {
  if (!entry->matched.empty() && subject == entry->matched) return true;
  const auto known = issuers.find(subject.AsStringView());
  const std::string* text = &entry->printed;
  if (known != issuers.end()) {
    text = &known->second.text;
  } else if (!pki::PrintNameDer(subject, &entry->printed)) {
    return false;
  }
  if (!FoldedEqual{}(*text, entry->key)) return false;
  entry->matched = subject;
  return true;
}

// One CaRecord (layout beside EncodeCaList). The certificate's outline is
// checked against the record's issuer and serial and its subject against the
// entry's key; it is decoded when first used.
bool DecodeRecord(Parser* records, const std::shared_ptr<const std::vector<uint8_t>>& file,
                  IssuerNames* issuers, EntrySubject* subject, CaRecord* out) {
  Parser p;
  if (!records->ReadSequence(&p)) return false;

  // Up to two SEQUENCEs come before the serial: the certificate and the
  // issuer name, either of which may be missing.
  Input seqs[2];
  int n = 0;
  der::Tag tag = 0;
  while (p.PeekTag(&tag) && tag == der::kSequence) {
    if (n == 2 || !p.ReadRawTLV(&seqs[n])) return false;
    ++n;
  }
  Input certificate, cert_issuer, cert_serial, cert_subject, name;
  if (n == 2) {
    certificate = seqs[0];
    name = seqs[1];
    if (!CertificateOutline(certificate, &cert_issuer, &cert_serial, &cert_subject)) return false;
  } else if (n == 1) {
    // One SEQUENCE alone: a certificate when it has the outline of one.
    if (CertificateOutline(seqs[0], &cert_issuer, &cert_serial, &cert_subject)) {
      certificate = seqs[0];
    } else {
      name = seqs[0];
    }
  }
  if (!certificate.empty()) {
    // The record's issuer is the certificate's: a file naming another one
    // has been tampered with.
    if (!name.empty() && !(name == cert_issuer)) return false;
    name = cert_issuer;
  }
  const IssuerName* issuer = nullptr;
  if (!name.empty()) {
    auto [it, inserted] = issuers->try_emplace(name.AsStringView());
    if (inserted) {
      auto decoded = std::make_shared<Name>();
      if (!decoded->decode(name.data(), name.size())) {
        issuers->erase(it);
        return false;
      }
      it->second.text = decoded->toString();
      it->second.name = std::move(decoded);
    }
    issuer = &it->second;
    out->issuer = issuer->name;
  }
  if (!certificate.empty() && !IsEntrySubject(cert_subject, *issuers, subject)) return false;

  Input serial;
  if (!p.ReadInteger(&serial) || !out->serial.fromDerContent(serial.data(), serial.size()) ||
      !tsl::ReadInt32(&p, &out->source)) {
    return false;
  }
  if (!certificate.empty()) {
    BigInteger own;
    if (!own.fromDerContent(cert_serial.data(), cert_serial.size()) || own != out->serial) {
      return false;
    }
  }
  if (p.HasMore()) {
    Input metadata;
    auto m = std::make_unique<TSLMetadata>();
    if (!p.ReadRawTLV(&metadata) || !tsl::DecodeTslMetadata(metadata, m.get())) return false;
    out->metadata = std::move(m);
  }
  if (!p.Remaining().empty()) return false;

  if (!certificate.empty()) {
    out->certificate = std::make_unique<CaCertificate>(file, certificate);
  }
  out->id = RecordId(issuer ? std::string_view(issuer->text) : std::string_view(),
                     out->serial.toHex());
  return true;
}

}  // namespace

// The CA list file is one DER stream:
//
//   CaList ::= SEQUENCE OF CaEntry                -- table order
//   CaEntry ::= SEQUENCE {
//     key      UTF8String,                        -- the entry's subject-name text
//     records  SEQUENCE SIZE (1..MAX) OF CaRecord }  -- entry order
//   CaRecord ::= SEQUENCE {
//     certificate  Certificate OPTIONAL,          -- DER, as the record keeps it
//     issuer       Name OPTIONAL,                 -- the certificate's issuer, as it holds it
//     serial       INTEGER,                       -- CertificateSerialNumber
//     source       INTEGER (-2147483648..2147483647),  -- 1 trusted list, 2 PEM list,
//                                                 --  3 caller, 4 keep existing, other
//     metadata     TSLMetadata OPTIONAL }         -- trusted-list records only
//
// directly followed, when at least one trusted list is loaded, by
//
//   LoadedTSLInfos                                -- the register, in order
//
// and by nothing else. TSLMetadata and LoadedTSLInfos are defined in
// tsl/tsl_records.cpp. Neither entries nor records carry a version: the file
// name carries it. The spare value of a record is not written.
//
// Reading checks every element but decodes no certificate: each must have
// the outline of a certificate whose issuer and serial are the record's and
// whose subject prints as its entry's key, and is decoded when first used.
void EncodeCaList(const CaStore& store, const tsl::LoadedTslRegister& tsls,
                  std::vector<uint8_t>* out) {
  if (store.empty() && tsls.empty()) return;
  Writer w(out);
  w.Open(der::kSequence);
  for (int e = 0; e < store.count(); ++e) {
    const CaEntry& entry = store.entry(e);
    w.Open(der::kSequence);
    w.AddTLV(der::kUtf8String, Input(std::string_view(entry.key())));
    w.Open(der::kSequence);
    for (int r = 0; r < entry.size(); ++r) EncodeRecord(entry.record(r), out);
    w.Close();
    w.Close();
  }
  w.Close();
  tsls.encode(out);
}

bool DecodeCaList(Input file, CaStore* store, tsl::LoadedTslRegister* tsls) {
  return DecodeCaList(std::make_shared<const std::vector<uint8_t>>(file.ToVector()), store, tsls);
}

bool DecodeCaList(std::shared_ptr<const std::vector<uint8_t>> file, CaStore* store,
                  tsl::LoadedTslRegister* tsls) {
  IssuerNames issuers;
  issuers.reserve(kMaxEntries);
  EntrySubject subject;
  Parser top{Input(*file)};
  Parser entries;
  if (!top.ReadSequence(&entries)) return false;
  // Entries past the table's limit are not read.
  for (int e = 0; entries.HasMore() && e < kMaxEntries; ++e) {
    Parser entry, records;
    Input key;
    if (!entries.ReadSequence(&entry) || !entry.Read(der::kUtf8String, &key) ||
        !entry.ReadSequence(&records) || entry.HasMore() || !records.HasMore()) {
      return false;
    }
    const std::string_view key_text = key.AsStringView();
    if (key_text.find('\0') != std::string_view::npos || store->findEntry(key_text) >= 0) {
      return false;  // the table never holds two entries under one key
    }
    subject.key = key_text;
    subject.matched = Input();
    while (records.HasMore()) {
      CaRecord record;
      if (!DecodeRecord(&records, file, &issuers, &subject, &record) ||
          !store->append(key_text, std::move(record))) {
        return false;
      }
    }
    if (!records.Remaining().empty()) return false;
  }
  if (top.HasMore()) {
    Input block;
    if (!top.ReadRawTLV(&block) || top.HasMore() || !tsls->decode(block)) return false;
  }
  return top.Remaining().empty();
}

}  // namespace quillon::castore
