// Fuzzes CertificateList::decode and, on what decodes, checks findSerial()
// against the plain definition: the first entry, in encoded order, whose
// printed serial equals the text. Then copies, encodes and decodes again.
// Seed corpus: fuzz/corpus/crl/ (small real CRLs).

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "quillon32/certificate_list.h"

namespace {

#define REQUIRE(cond)                                                 \
  do {                                                                \
    if (!(cond)) {                                                    \
      std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      std::abort();                                                   \
    }                                                                 \
  } while (0)

// Texts near a printed serial: other case, leading zeros, signs, cut or
// changed digits. Most print no value or a value that is not listed.
std::vector<std::string> NearTexts(const std::string& t) {
  std::vector<std::string> out = {"00" + t, "-" + t, "0" + t, t.substr(1), t + "00"};
  std::string lower = t;
  for (char& c : lower) c = static_cast<char>(c >= 'A' && c <= 'F' ? c + 32 : c);
  out.push_back(lower);
  std::string changed = t;
  changed.back() = changed.back() == '0' ? '1' : '0';
  out.push_back(changed);
  // A character that is no digit, in the middle: long texts are read many
  // digits at a time, and each must still be checked.
  for (const char c : {'G', ':', '@', '/', 'a'}) {
    changed = t;
    changed[changed.size() / 2] = c;
    out.push_back(changed);
  }
  if (t[0] == '-') out.push_back(t.substr(1));
  return out;
}

void CheckLookups(const CertificateList& crl, const uint8_t* data, size_t size) {
  // The definition, by a walk.
  std::map<std::string, long> first;
  for (size_t i = 0; i < crl.entryCount(); ++i) {
    const std::string text = crl.entrySerialText(i);
    REQUIRE(!text.empty());
    CRLEntry e;
    // Times and extension values are read in full only here, so an entry
    // may fail to decode; its serial still prints the same.
    if (crl.entry(i, &e)) REQUIRE(e.serialNumber.toHex() == text);
    first.emplace(text, static_cast<long>(i));
  }
  const auto expect = [&](const std::string& text) {
    const auto it = first.find(text);
    const long want = it == first.end() ? -1 : it->second;
    REQUIRE(crl.findSerial(text.c_str()) == want);
  };
  size_t near = 0;
  for (const auto& [text, i] : first) {
    expect(text);
    if (near++ < 16) {
      for (const std::string& t : NearTexts(text)) expect(t);
    }
  }
  // Texts from the input itself, printed as serials are.
  static const char kDigits[] = "0123456789ABCDEF";
  for (size_t len = 1; len <= 20 && len <= size; len += 7) {
    std::string t;
    for (size_t k = size - len; k < size; ++k) {
      t += kDigits[data[k] >> 4];
      t += kDigits[data[k] & 15];
    }
    expect(t);
    expect("-" + t);
  }
  expect("");
  expect("-");
  expect("00");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CertificateList crl;
  // Taking the bytes over decodes as copying them does, and takes them only
  // on success.
  std::vector<unsigned char> given(data, data + size);
  CertificateList taken;
  const bool took = taken.decode(std::move(given));
  if (!crl.decode(data, size)) {
    REQUIRE(!crl.isDecoded() && crl.entryCount() == 0 && crl.encode().empty());
    REQUIRE(!took && !taken.isDecoded() && given == std::vector<unsigned char>(data, data + size));
    return 0;
  }
  REQUIRE(took && given.empty() && taken == crl && taken.entryCount() == crl.entryCount());
  REQUIRE(taken.tbsCertList().size == crl.tbsCertList().size);
  REQUIRE(crl.version() == 1 || crl.version() == 2);
  REQUIRE(!crl.der().empty() && !crl.tbsCertList().empty() && !crl.issuerBytes().empty());
  AuthorityKeyIdentifier aki;
  IssuingDistributionPoint idp;
  X500Time expired;
  BigInteger number;
  (void)crl.authorityKeyIdentifier(&aki);
  (void)crl.issuingDistributionPoint(&idp);
  (void)crl.expiredCertsOnCRL(&expired);
  (void)crl.crlNumber(&number);
  CRLEntry past_end;
  REQUIRE(!crl.entry(crl.entryCount(), &past_end));
  REQUIRE(crl.entrySerialText(crl.entryCount()).empty());

  CheckLookups(crl, data, size);

  // A copy holds the same and answers the same, without the original.
  auto held = std::make_unique<CertificateList>(crl);
  CertificateList copy(*held);
  held.reset();
  REQUIRE(copy == crl && copy.entryCount() == crl.entryCount());
  for (size_t i = 0; i < crl.entryCount() && i < 64; ++i) {
    const std::string text = crl.entrySerialText(i);
    REQUIRE(copy.entrySerialText(i) == text);
    REQUIRE(copy.findSerial(text.c_str()) == crl.findSerial(text.c_str()));
  }

  // The encoding decodes to the same list and is stable.
  const std::vector<unsigned char> der = crl.encode();
  CertificateList again;
  REQUIRE(again.decode(der.data(), der.size()));
  REQUIRE(again == crl && again.encode() == der && again.entryCount() == crl.entryCount());
  REQUIRE(again.version() == crl.version());
  for (size_t i = 0; i < crl.entryCount(); ++i)
    REQUIRE(again.entrySerialText(i) == crl.entrySerialText(i));
  return 0;
}
