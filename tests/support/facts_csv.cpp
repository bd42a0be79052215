#include "support/facts_csv.h"

#include "quillon32/name.h"
#include "support/pki_factory.h"

namespace quillon::testing {

std::vector<FactsRow> ReadFactsCsv(const std::string& relative) {
  const std::vector<uint8_t> bytes = ReadFile(TestDataPath(relative));
  std::vector<std::vector<std::string>> lines(1);
  std::string field;
  bool quoted = false;
  for (size_t i = 0; i < bytes.size(); ++i) {
    const char c = static_cast<char>(bytes[i]);
    if (c == '"' && quoted && i + 1 < bytes.size() && bytes[i + 1] == '"') {
      field += '"';
      ++i;
    } else if (c == '"') {
      quoted = !quoted;
    } else if (quoted || (c != ',' && c != '\n' && c != '\r')) {
      field += c;
    } else if (c != '\r') {
      lines.back().push_back(std::move(field));
      field.clear();
      if (c == '\n') lines.emplace_back();
    }
  }
  if (!field.empty() || !lines.back().empty()) lines.back().push_back(std::move(field));

  std::vector<FactsRow> rows;
  for (size_t l = 1; l < lines.size(); ++l) {
    if (lines[l].size() < 2) continue;
    FactsRow row;
    for (size_t k = 0; k < lines[0].size() && k < lines[l].size(); ++k) {
      row[lines[0][k]] = lines[l][k];
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<std::string> SplitFacts(const std::string& text, const std::string& separator) {
  std::vector<std::string> out;
  for (size_t at = 0; !text.empty();) {
    const size_t next = text.find(separator, at);
    out.push_back(text.substr(at, next - at));
    if (next == std::string::npos) break;
    at = next + separator.size();
  }
  return out;
}

std::string FactsSerial(const std::string& hex) {
  const bool negative = !hex.empty() && hex[0] == '-';
  const std::string digits = hex.substr(negative ? 1 : 0);
  return (negative ? "-" : "") + std::string(digits.size() % 2, '0') + digits;
}

int64_t FactsTime(const std::string& iso) {
  const auto n = [&iso](size_t at, size_t length) { return std::stoi(iso.substr(at, length)); };
  return UtcTime(n(0, 4), n(5, 2), n(8, 2), n(11, 2), n(14, 2), n(17, 2));
}

std::vector<std::pair<std::string, std::string>> FactsName(const std::string& text) {
  static const std::map<std::string, std::string> kLabels = {
      {"C", "2.5.4.6"},  {"O", "2.5.4.10"}, {"OU", "2.5.4.11"}, {"ST", "2.5.4.8"},
      {"L", "2.5.4.7"},  {"CN", "2.5.4.3"}, {"DC", "0.9.2342.19200300.100.1.25"}};
  std::vector<std::pair<std::string, std::string>> out;
  std::string pair;
  for (size_t i = 0; i <= text.size() && !text.empty(); ++i) {
    if (i < text.size() && text[i] == '\\' && i + 1 < text.size()) {
      pair += text[++i];
    } else if (i < text.size() && text[i] != ',') {
      pair += text[i];
    } else {
      const size_t eq = pair.find('=');
      const std::string type = pair.substr(0, eq);
      const auto label = kLabels.find(type);
      out.insert(out.begin(), {label == kLabels.end() ? type : label->second, pair.substr(eq + 1)});
      pair.clear();
    }
  }
  return out;
}

std::vector<std::pair<std::string, std::string>> NameAttributes(const Name& name) {
  std::vector<std::pair<std::string, std::string>> out;
  for (const Name::RDN& rdn : name.rdns()) {
    for (const Name::Attribute& a : rdn) {
      out.emplace_back(a.type, std::string(a.value.begin(), a.value.end()));
    }
  }
  return out;
}

}  // namespace quillon::testing
