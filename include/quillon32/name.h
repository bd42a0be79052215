// Name: an X.500 distinguished name, a sequence of relative distinguished
// names (RDNs), each a set of attribute type/value pairs.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "quillon32/export.h"

class QUILLON32_API Name {
 public:
  struct Attribute {
    std::string type;                  // dotted OID, e.g. "2.5.4.3"
    int valueTag = 0;                  // ASN.1 universal tag of the value (12 UTF8String, 19 PrintableString, ...)
    std::vector<unsigned char> value;  // the value's content octets
    bool operator==(const Attribute&) const = default;
  };
  using RDN = std::vector<Attribute>;

  Name() = default;

  // Decodes a whole Name element (SEQUENCE OF SET OF AttributeTypeAndValue)
  // in DER or BER. False, name unchanged, on malformed input.
  bool decode(const unsigned char* der, size_t length);
  // The DER encoding (attributes of each RDN in DER SET order).
  std::vector<unsigned char> encode() const;

  // Parses text such as "CN=Test CA, O=Example + OU=Unit, C=IT": pairs
  // "type=value" separated by "," (next RDN) or "+" (same RDN). Blanks, tabs
  // and line feeds before a type or a value are skipped; the type is taken in
  // upper case and may be a label of the attribute table or a dotted OID,
  // optionally after "OID."; a value is bare (ending at the first "," or "+"
  // not preceded by a backslash, the backslash kept) or in double quotes (a
  // quote after a backslash does not end it). The values are then normalised
  // (see normalise()). False, name unchanged, on malformed text or an unknown
  // type label.
  bool parse(const char* text);

  // The text of the name, printing at most 30 attributes whose types appear
  // in the attribute table, in the table's type order (C, O, OU, ST, L, CN,
  // serialNumber, DC, then the further types). This one printer makes every
  // name text the library stores or compares (CA table keys, CRL issuers).
  std::string toString() const;

  // Re-labels value types the way the library encodes them: country, serial
  // number and dnQualifier become PrintableString; domain component and
  // e-mail address IA5String (UTF8String, UniversalString and BMPString
  // values converted to 8-bit text first); any other attribute held as
  // OCTET STRING, PrintableString, T61String, IA5String, UniversalString or
  // BMPString becomes UTF8String.
  void normalise();

  const std::vector<RDN>& rdns() const { return rdns_; }
  std::vector<RDN>& rdns() { return rdns_; }
  bool empty() const { return rdns_.empty(); }
  // The value of the first attribute of |type| as UTF-8 text ("" when absent).
  std::string attributeText(const char* type) const;

  // Equality of the encodings.
  bool operator==(const Name& other) const;
  bool operator!=(const Name& other) const { return !(*this == other); }

 private:
  std::vector<RDN> rdns_;
};
