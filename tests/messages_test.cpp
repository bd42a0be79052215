// The message catalogue: the code <-> row mapping of its two bands, the
// English texts callers and logs compare against, and translations that keep
// the English placeholders and line breaks.
#include "api/messages.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace quillon::api {
namespace {

constexpr unsigned kAllLanguages[] = {kLangItalian, kLangEnglish, kLangGerman, kLangFrench,
                                      kLangSpanish};
constexpr unsigned kTranslations[] = {kLangItalian, kLangGerman, kLangFrench, kLangSpanish};

// The printf-style conversions of |text| in order: "%s" and "%d" as such,
// any other use of '%' as "%?", so that a stray percent sign is caught too.
std::vector<std::string> Placeholders(const std::string& text) {
  std::vector<std::string> out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') continue;
    const char next = i + 1 < text.size() ? text[i + 1] : '\0';
    out.push_back(next == 's' || next == 'd' ? std::string("%") + next : "%?");
    ++i;
  }
  return out;
}

std::string Row(int row, unsigned lang) {
  const char* t = MessageTextRow(row, lang);
  return t ? t : "";
}

TEST(Messages, CodesMapToRowsInTwoBands) {
  const std::map<unsigned long, int> edges = {
      {0, -1},    {4607, -1}, {4608, 0},   {4733, 125}, {4734, -1},
      {5119, -1}, {5120, 126}, {5260, 266}, {5261, -1}, {0xFFFFFFFFul, -1},  // "no error"
  };
  for (const auto& [code, row] : edges) {
    EXPECT_EQ(MessageRow(code), row) << code;
    for (unsigned lang : kAllLanguages) EXPECT_EQ(MessageText(code, lang) != nullptr, row >= 0);
  }
  for (int row = 0; row < kMessageRows; ++row) EXPECT_EQ(MessageRow(MessageCodeOfRow(row)), row);
  EXPECT_EQ(MessageCodeOfRow(-1), 0u);
  EXPECT_EQ(MessageCodeOfRow(kMessageRows), 0u);
  // A language past the last column reads nothing.
  EXPECT_EQ(MessageText(5120, kLanguages), nullptr);
  EXPECT_EQ(MessageText(5120, 0xFFFFFFFFu), nullptr);
  EXPECT_EQ(MessageTextRow(-1, kLangEnglish), nullptr);
  EXPECT_EQ(MessageTextRow(kMessageRows, kLangEnglish), nullptr);
}

// Every row is translated and keeps the English placeholders and line breaks.
// Rows the same in a language as in English: names of qualified-certificate
// statements, bare placeholders and "CRL: %s" (French puts a space before the
// colon); any other is most likely a row left untranslated.
TEST(Messages, EveryRowIsTranslatedKeepingPlaceholdersAndLineBreaks) {
  std::map<unsigned, std::set<unsigned long>> same;
  for (int row = 0; row < kMessageRows; ++row) {
    const std::string en = Row(row, kLangEnglish);
    // At most one placeholder: the logger fills only the first.
    EXPECT_LE(Placeholders(en).size(), 1u) << "code " << MessageCodeOfRow(row);
    for (unsigned lang : kAllLanguages) {
      const std::string t = Row(row, lang);
      SCOPED_TRACE("code " + std::to_string(MessageCodeOfRow(row)) + " language " +
                   std::to_string(lang) + ": " + t);
      EXPECT_FALSE(t.empty());
      EXPECT_EQ(Placeholders(t), Placeholders(en));
      EXPECT_EQ(std::count(t.begin(), t.end(), '\n'), std::count(en.begin(), en.end(), '\n'));
      if (lang != kLangEnglish && t == en) same[lang].insert(MessageCodeOfRow(row));
    }
  }
  for (unsigned lang : kTranslations) {
    std::set<unsigned long> allowed = {kQcCompliance, kQcSscd, kFreeText, kFreeText2};
    if (lang != kLangFrench) allowed.insert(kCrlUrl);
    EXPECT_EQ(same[lang], allowed) << "language " << lang;
  }
}

TEST(Messages, TextsAreVerbatimAndColumnsInTheirOrder) {
  // The texts this library writes to the log, and rows whose misspellings
  // must stay as they are. (More logged texts are compared in the CA table,
  // CA list and frame tests.)
  const std::map<unsigned long, std::string> expected = {
      {kCaCertificatesIncludedInList, "CA certificates included into certificate list: %d"},
      {kStartCaListCopyToDisk, "Starting CA certificates list copying to disk"},
      {kEndCaListCopyToDisk, "CA certificates list copy on disk finished"},
      {4733, "Embdeded certificates removal request received from %s"},
      {kCrlSignatureNotVerified, "CRL Signature not verified"},
      {kFailedToSaveCaList, "Failed to save the list of CA certificates"},
      {5199, "DistributionPoint with incorrect format"},
      {5234, "DistributionPoint with incorect format"},
  };
  for (const auto& [code, text] : expected) {
    const char* t = MessageText(code, kLangEnglish);
    ASSERT_NE(t, nullptr) << code;
    EXPECT_EQ(std::string(t), text) << code;
  }
  // The language columns are in their fixed order.
  const char* internal_error[] = {"Errore interno", "Internal error", "Interner Fehler",
                                  "Erreur interne", "Error interno"};
  for (unsigned lang : kAllLanguages) {
    EXPECT_STREQ(MessageText(kInternalError, lang), internal_error[lang]);
  }
}

}  // namespace
}  // namespace quillon::api
