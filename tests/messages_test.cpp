// Tests of the message catalogue: shape of the table, the
// code <-> row mapping, verbatim English texts, and the translations keeping
// the English placeholders and line breaks.

#include "api/messages.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace quillon::api {
namespace {

constexpr unsigned kAllLanguages[] = {kLangItalian, kLangEnglish, kLangGerman, kLangFrench,
                                      kLangSpanish};
constexpr const char* kLanguageNames[] = {"Italian", "English", "German", "French", "Spanish"};

// The printf-style conversions of |text| in order: "%s" and "%d" as such,
// any other use of '%' as "%?" so that a stray percent sign is caught too.
std::vector<std::string> Placeholders(const std::string& text) {
  std::vector<std::string> out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    char next = i + 1 < text.size() ? text[i + 1] : '\0';
    out.push_back(next == 's' || next == 'd' ? std::string("%") + next : "%?");
    ++i;
  }
  return out;
}

int CountLineBreaks(const std::string& text) {
  int n = 0;
  for (char c : text) n += c == '\n';
  return n;
}

bool IsValidUtf8(const std::string& s) {
  size_t i = 0;
  while (i < s.size()) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    int extra;
    if (c < 0x80) extra = 0;
    else if (c >= 0xC2 && c <= 0xDF) extra = 1;
    else if (c >= 0xE0 && c <= 0xEF) extra = 2;
    else if (c >= 0xF0 && c <= 0xF4) extra = 3;
    else return false;
    for (int k = 1; k <= extra; ++k) {
      if (i + k >= s.size()) return false;
      unsigned char cc = static_cast<unsigned char>(s[i + k]);
      if ((cc & 0xC0) != 0x80) return false;
    }
    i += extra + 1;
  }
  return true;
}

std::string Row(int row, unsigned lang) {
  const char* t = MessageTextRow(row, lang);
  return t ? t : "";
}

TEST(MessagesTest, BandConstants) {
  EXPECT_EQ(kFirstInfoCode, 4608u);
  EXPECT_EQ(kLastInfoCode, 4733u);
  EXPECT_EQ(kFirstErrorCode, 5120u);
  EXPECT_EQ(kLastErrorCode, 5260u);
  EXPECT_EQ(kMessageRows, 267);
  EXPECT_EQ(kLanguages, 5);
}

TEST(MessagesTest, EveryRowHasFiveNonEmptyValidUtf8Texts) {
  for (int row = 0; row < kMessageRows; ++row) {
    for (unsigned lang : kAllLanguages) {
      const char* t = MessageTextRow(row, lang);
      ASSERT_NE(t, nullptr) << "row " << row << " " << kLanguageNames[lang];
      EXPECT_GT(std::strlen(t), 0u) << "row " << row << " " << kLanguageNames[lang];
      EXPECT_TRUE(IsValidUtf8(t)) << "row " << row << " " << kLanguageNames[lang];
    }
  }
}

TEST(MessagesTest, TranslationsKeepPlaceholdersAndLineBreaks) {
  for (int row = 0; row < kMessageRows; ++row) {
    const std::string en = Row(row, kLangEnglish);
    const auto en_ph = Placeholders(en);
    // A text holds at most one placeholder: the logger fills only the first.
    EXPECT_LE(en_ph.size(), 1u) << "code " << MessageCodeOfRow(row);
    for (unsigned lang : kAllLanguages) {
      const std::string t = Row(row, lang);
      EXPECT_EQ(Placeholders(t), en_ph)
          << "code " << MessageCodeOfRow(row) << " " << kLanguageNames[lang] << ": " << t;
      EXPECT_EQ(CountLineBreaks(t), CountLineBreaks(en))
          << "code " << MessageCodeOfRow(row) << " " << kLanguageNames[lang] << ": " << t;
    }
  }
}

TEST(MessagesTest, EnglishSpotChecksAreVerbatim) {
  const std::map<unsigned long, std::string> expected = {
      {4608, "disabled"},
      {4610, "always download from the Net"},
      {4611, "use only local ones"},
      {4612, "download from the Net once per session"},
      {4613, "download from the Net when expired"},
      {4618, "Signer:\n%s"},
      {4619, "Issuer:\n%s"},
      {4677, "CA certificates included into certificate list: %d"},
      {4711, "CRLs in cache: %d"},
      {4733, "Embdeded certificates removal request received from %s"},
      {5120, "Internal error"},
      {5121, "The argument is missing, try Ormelo -h"},
      {5152, "Detached verifcation not allowed on file m7m"},
      {5183, "Virtual memory exausted"},
      {5195, "Failed to add to the list of CA certificates"},
      {5196, "Errore while receiving service request [%s]"},
      {5199, "DistributionPoint with incorrect format"},
      {5222, "Certificare encoding not conform to the BER format"},
      {5234, "DistributionPoint with incorect format"},
      {5253, "OCSP Service: no data"},
      {5258, "Failed to add embeded certificates"},
      {5260, "Document modified after the signature"},
  };
  for (const auto& [code, text] : expected) {
    const char* t = MessageText(code, kLangEnglish);
    ASSERT_NE(t, nullptr) << code;
    EXPECT_EQ(std::string(t), text) << code;
  }
  // 5199 and 5234 are two codes for the same fault, each with its own spelling.
  EXPECT_STRNE(MessageText(5199, kLangEnglish), MessageText(5234, kLangEnglish));
}

TEST(MessagesTest, NamedCodesOfTheLibraryHaveTheirTexts) {
  const std::map<unsigned long, std::string> expected = {
      {kInternalError, "Internal error"},
      {kCaKeyNotEnabledForCrlSignature, "CA key not enabled for CRL signature"},
      {kCrlCouldNotBeDownloaded, "CRL could not be downloaded"},
      {kCrlSignatureNotVerified, "CRL Signature not verified"},
      {kFailedToAccessCaList, "Failed to access the list of CA certificates"},
      {kFailedToInitCaList, "Failed to initialize the list of CA certificates"},
      {kFailedToAddCaList, "Failed to add to the list of CA certificates"},
      {kDistributionPointIncorrectFormat, "DistributionPoint with incorrect format"},
      {kFailedToGetOcspStatus, "Failed to get OCSP status"},
      {kOcspDataExpired, "OCSP service: data expired"},
      {kDistributionPointIncorectFormat, "DistributionPoint with incorect format"},
      {kCertEncodingNotBer, "Certificare encoding not conform to the BER format"},
      {kAlwaysDownloadFromNet, "always download from the Net"},
      {kUseOnlyLocalOnes, "use only local ones"},
      {kDownloadFromNetOncePerSession, "download from the Net once per session"},
      {kDownloadFromNetWhenExpired, "download from the Net when expired"},
      {kStartCrlCheck, "Start CRL check"},
      {kEndCrlCheck, "End of CRL check"},
      {kStartOcspAccess, "Start OCSP access"},
      {kEndOcspAccessNotRevoked, "End of OCSP access: certificate not revoked"},
      {kStartCrlDownloadViaHttps, "Starting CRL download via HTTPS"},
      {kStartCaListCopyToDisk, "Starting CA certificates list copying to disk"},
      {kEndCaListCopyToDisk, "CA certificates list copy on disk finished"},
  };
  EXPECT_EQ(kInternalError, 5120u);
  EXPECT_EQ(kDistributionPointIncorrectFormat, 5199u);
  EXPECT_EQ(kDistributionPointIncorectFormat, 5234u);
  EXPECT_EQ(kCertEncodingNotBer, 5222u);
  for (const auto& [code, text] : expected) {
    const char* t = MessageText(code, kLangEnglish);
    ASSERT_NE(t, nullptr) << code;
    EXPECT_EQ(std::string(t), text) << code;
  }
}

TEST(MessagesTest, CodeToRowMappingAtBandEdges) {
  EXPECT_EQ(MessageRow(0), -1);
  EXPECT_EQ(MessageRow(4607), -1);
  EXPECT_EQ(MessageRow(4608), 0);
  EXPECT_EQ(MessageRow(4733), 125);
  EXPECT_EQ(MessageRow(4734), -1);
  EXPECT_EQ(MessageRow(5000), -1);
  EXPECT_EQ(MessageRow(5119), -1);
  EXPECT_EQ(MessageRow(5120), 126);
  EXPECT_EQ(MessageRow(5260), 266);
  EXPECT_EQ(MessageRow(5261), -1);
  EXPECT_EQ(MessageRow(0xFFFFFFFFul), -1);  // "no error" has no row

  for (int row = 0; row < kMessageRows; ++row)
    EXPECT_EQ(MessageRow(MessageCodeOfRow(row)), row);
  EXPECT_EQ(MessageCodeOfRow(-1), 0u);
  EXPECT_EQ(MessageCodeOfRow(kMessageRows), 0u);

  EXPECT_STREQ(MessageText(4608, kLangEnglish), "disabled");
  EXPECT_STREQ(MessageText(4733, kLangEnglish),
               "Embdeded certificates removal request received from %s");
  EXPECT_STREQ(MessageText(5120, kLangEnglish), "Internal error");
  EXPECT_STREQ(MessageText(5260, kLangEnglish), "Document modified after the signature");
  for (unsigned long code : {0ul, 4607ul, 4734ul, 5119ul, 5261ul})
    for (unsigned lang : kAllLanguages) EXPECT_EQ(MessageText(code, lang), nullptr) << code;
}

TEST(MessagesTest, OutOfRangeLanguageOrRowGivesNull) {
  EXPECT_EQ(MessageText(5120, 5), nullptr);
  EXPECT_EQ(MessageText(5120, 255), nullptr);
  EXPECT_EQ(MessageText(5120, 0xFFFFFFFFu), nullptr);
  EXPECT_EQ(MessageTextRow(-1, kLangEnglish), nullptr);
  EXPECT_EQ(MessageTextRow(kMessageRows, kLangEnglish), nullptr);
  EXPECT_EQ(MessageTextRow(0, kLanguages), nullptr);
  EXPECT_NE(MessageTextRow(kMessageRows - 1, kLangSpanish), nullptr);
}

TEST(MessagesTest, LanguageColumnsAreInTheFixedOrder) {
  // Italian is column 0 and the default language; English is column 1.
  EXPECT_STREQ(MessageText(kInternalError, kLangItalian), "Errore interno");
  EXPECT_STREQ(MessageText(kInternalError, kLangEnglish), "Internal error");
  EXPECT_STREQ(MessageText(kInternalError, kLangGerman), "Interner Fehler");
  EXPECT_STREQ(MessageText(kInternalError, kLangFrench), "Erreur interne");
  EXPECT_STREQ(MessageText(kInternalError, kLangSpanish), "Error interno");
}

// Rows whose text is the same in a language as in English: placeholders only,
// names of qualified-certificate statements, and "CRL: %s" (French puts a
// space before the colon). Any other row equal to English is most likely a
// row left untranslated.
TEST(MessagesTest, TranslationsAreNotLeftInEnglish) {
  const std::set<unsigned long> common = {
      kQcCompliance,  // "QcCompliance", a name
      kQcSscd,        // "QcSSCD", a name
      kFreeText,      // "%s"
      kFreeText2,     // "%s"
  };
  std::map<unsigned, std::set<unsigned long>> allowed;
  for (unsigned lang : {kLangItalian, kLangGerman, kLangSpanish}) {
    allowed[lang] = common;
    allowed[lang].insert(kCrlUrl);  // "CRL: %s"
  }
  allowed[kLangFrench] = common;

  for (unsigned lang : {kLangItalian, kLangGerman, kLangFrench, kLangSpanish}) {
    std::set<unsigned long> same;
    for (int row = 0; row < kMessageRows; ++row)
      if (Row(row, lang) == Row(row, kLangEnglish)) same.insert(MessageCodeOfRow(row));
    EXPECT_EQ(same, allowed[lang]) << kLanguageNames[lang];
  }
}

TEST(MessagesTest, TranslationsDoNotCopyEnglishMisspellings) {
  const char* const misspellings[] = {"Certificare", "Embdeded", "incorect", "exausted",
                                      "verifcation", "embeded", "Retension"};
  for (int row = 0; row < kMessageRows; ++row) {
    for (unsigned lang : {kLangItalian, kLangGerman, kLangFrench, kLangSpanish}) {
      const std::string t = Row(row, lang);
      for (const char* m : misspellings)
        EXPECT_EQ(t.find(m), std::string::npos)
            << "code " << MessageCodeOfRow(row) << " " << kLanguageNames[lang] << ": " << t;
    }
  }
}

}  // namespace
}  // namespace quillon::api
