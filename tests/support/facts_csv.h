// The facts and expected-outcome tables that come with the shared test data:
// CSV with a header line, double-quoted fields ("" for a quote inside one)
// and CR LF line ends. Cells that hold lists, times and names are read with
// the helpers below.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

class Name;

namespace quillon::testing {

// One row, by column name.
using FactsRow = std::map<std::string, std::string>;

// The rows of a table of the shared test data (|relative| to its root);
// blank lines are skipped. Throws when the file cannot be read.
std::vector<FactsRow> ReadFactsCsv(const std::string& relative);

// |text| cut at every |separator|; no parts for empty text.
std::vector<std::string> SplitFacts(const std::string& text, const std::string& separator);

// A serial as the tables write it ("3E9", "-1") as BigInteger::toHex()
// prints it ("03E9", "-01").
std::string FactsSerial(const std::string& hex);

// A time as the tables write it ("2010-01-01T08:30:00Z"), in UTC seconds.
int64_t FactsTime(const std::string& iso);

// A name as the tables write it (RFC 4514: last RDN first, backslash
// escapes, the labels C, O, OU, ST, L, CN and DC, dotted OIDs otherwise) as
// (dotted OID, value) pairs in encoded order. Every RDN in the tables holds
// one attribute.
std::vector<std::pair<std::string, std::string>> FactsName(const std::string& text);
// The attributes of |name| in the same form, values as their octets.
std::vector<std::pair<std::string, std::string>> NameAttributes(const Name& name);

}  // namespace quillon::testing
