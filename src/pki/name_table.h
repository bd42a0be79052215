// The attribute label table of distinguished names, shared by the name
// printer and the name parser.
//
// Thirty rows in a fixed order. The first row of each attribute type gives
// the label the printer writes, and the order of those first rows is the
// order in which the printer writes the types; the later rows are aliases the
// parser also accepts. Name texts made from this table are stored in the CA
// list and CRL cache files, so rows must never be reordered or relabelled.
#pragma once

#include <array>
#include <string_view>

namespace quillon::name_table {

struct Row {
  std::string_view type;   // dotted OID
  std::string_view label;  // as written by the printer (first row of a type)
};

inline constexpr std::string_view kCountry = "2.5.4.6";
inline constexpr std::string_view kOrganisation = "2.5.4.10";
inline constexpr std::string_view kOrganisationalUnit = "2.5.4.11";
inline constexpr std::string_view kState = "2.5.4.8";
inline constexpr std::string_view kLocality = "2.5.4.7";
inline constexpr std::string_view kCommonName = "2.5.4.3";
inline constexpr std::string_view kSerialNumber = "2.5.4.5";
inline constexpr std::string_view kDomainComponent = "0.9.2342.19200300.100.1.25";
inline constexpr std::string_view kSurname = "2.5.4.4";
inline constexpr std::string_view kGivenName = "2.5.4.42";
inline constexpr std::string_view kTitle = "2.5.4.12";
inline constexpr std::string_view kDnQualifier = "2.5.4.46";
inline constexpr std::string_view kPseudonym = "2.5.4.65";
inline constexpr std::string_view kEmailAddress = "1.2.840.113549.1.9.1";
inline constexpr std::string_view kDescription = "2.5.4.13";
inline constexpr std::string_view kOrganisationIdentifier = "2.5.4.97";

inline constexpr std::array<Row, 30> kRows = {{
    {kCountry, "C"},
    {kOrganisation, "O"},
    {kOrganisationalUnit, "OU"},
    {kState, "PROV"},
    {kLocality, "L"},
    {kCommonName, "CN"},
    {kSerialNumber, "SER"},
    {kDomainComponent, "DOM"},
    {kSurname, "SUR"},
    {kGivenName, "GIVEN"},
    {kTitle, "TITLE"},
    {kDnQualifier, "DNQUALIF"},
    {kPseudonym, "PSEUD"},
    {kEmailAddress, "EMAL"},
    {kDescription, "DESCR"},
    {kState, "ST"},
    {kSerialNumber, "serialNumber"},
    {kDomainComponent, "DC"},
    {kSurname, "SN"},
    {kGivenName, "givenName"},
    {kDnQualifier, "dnQualifier"},
    {kPseudonym, "pseudonym"},
    {kEmailAddress, "EMAILADDRESS"},
    {kDescription, "DESCRIPTION"},
    {kTitle, "title"},
    {kEmailAddress, "email"},
    {kDescription, "description"},
    {kEmailAddress, "E"},
    {kOrganisationIdentifier, "ORGID"},
    {kOrganisationIdentifier, "organizationIdentifier"},
}};

// The rows that introduce a type (each type's first row), in table order:
// the types the printer writes, in the order it writes them, with their labels.
inline constexpr std::array<Row, 16> kPrintedTypes = [] {
  std::array<Row, 16> out{};
  size_t n = 0;
  for (size_t i = 0; i < kRows.size(); ++i) {
    bool seen = false;
    for (size_t j = 0; j < i; ++j) seen = seen || kRows[j].type == kRows[i].type;
    if (!seen) out[n++] = kRows[i];
  }
  return out;
}();
static_assert(kPrintedTypes.back().type == kOrganisationIdentifier,
              "every type of the table is printed, the last one introduced by row 29");

}  // namespace quillon::name_table
