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
  // in DER or BER. Each value must be a primitive element of the universal
  // class; its tag number and content octets are kept. False, name unchanged,
  // on malformed input: an empty RDN, a constructed or non-universal value,
  // bytes after the Name, and the like.
  bool decode(const unsigned char* der, size_t length);
  // The DER encoding (attributes of each RDN in DER SET order). Attributes
  // that cannot be encoded (a type that is not a dotted OID, a value tag
  // outside 1 .. 2^28-1) are left out, and so are RDNs left with none.
  std::vector<unsigned char> encode() const;

  // Parses text such as "CN=Test CA, O=Example + OU=Unit, C=IT": pairs
  // "type=value" separated by "," (next RDN) or "+" (same RDN). Blanks, tabs
  // and line feeds before a type or a value are skipped; the type is taken in
  // upper case and may be a label of the attribute table or a dotted OID,
  // optionally after "OID."; a value is bare (ending at the first "," or "+"
  // not preceded by a backslash, the backslash kept) or in double quotes (a
  // quote after a backslash does not end it). Inside quotes \" stands for a
  // quote, its backslash dropped; every other character is kept as it is,
  // and only blanks may follow the closing quote before the next separator.
  // Nothing is trimmed after a bare value: "O=Example + OU=Unit" gives the
  // value "Example " (blank included). A text of blanks only is the empty
  // name. Values are stored as UTF8String and then normalised (see
  // normalise()). False, name unchanged, on malformed text ("CN", "=x", an
  // unterminated quote, a separator with no pair after it) or an unknown
  // type label.
  bool parse(const char* text);

  // The text of the name, printing at most 30 attributes whose types appear
  // in the attribute table, in the table's type order (C, O, OU, ST, L, CN,
  // serialNumber, DC, then the further types). This one printer makes every
  // name text the library stores or compares (CA table keys, CRL issuers).
  //
  // Exactly: for each type in the order C, O, OU, ST, L, CN, serialNumber,
  // DC, surname, givenName, title, dnQualifier, pseudonym, e-mail address,
  // description, organizationIdentifier, every attribute of that type in
  // name order (RDN boundaries are not shown) is written "LABEL=value" with
  // the labels C O OU PROV L CN SER DOM SUR GIVEN TITLE DNQUALIF PSEUD EMAL
  // DESCR ORGID, the pairs joined by ", ", the first 30 only. Attributes of
  // other types are not written; the empty name gives "".
  // The value is its UTF-8 text (BMPString and UniversalString converted,
  // T61String taken as Latin-1, every other type octet for octet), with a
  // NUL character written as \00 and a blank added after a final
  // backslash. It is written bare unless it starts with a blank, tab, line
  // feed or quote, or holds a "," or "+" not preceded by a backslash; then it
  // is written in double quotes with each quote inside as \". Backslashes
  // are never doubled. So parse() reads back every value as printed, and the
  // printed text of the parsed name is the same text.
  std::string toString() const;

  // Re-labels value types the way the library encodes them: country, serial
  // number and dnQualifier become PrintableString; domain component and
  // e-mail address IA5String (UTF8String, UniversalString and BMPString
  // values converted to 8-bit text first); any other attribute held as
  // OCTET STRING, PrintableString, T61String, IA5String, UniversalString or
  // BMPString becomes UTF8String. The 8-bit text is UTF-8: UTF8String
  // octets stay, UniversalString and BMPString are rewritten in UTF-8, and
  // T61String (taken as Latin-1) too when it becomes UTF8String; any other
  // value keeps its octets.
  void normalise();

  const std::vector<RDN>& rdns() const { return rdns_; }
  std::vector<RDN>& rdns() { return rdns_; }
  bool empty() const { return rdns_.empty(); }
  // The value of the first attribute of |type| as UTF-8 text ("" when absent).
  // |type| is a dotted OID or a label of the attribute table ("CN", "email").
  std::string attributeText(const char* type) const;

  // Equality of the encodings.
  bool operator==(const Name& other) const;
  bool operator!=(const Name& other) const { return !(*this == other); }

 private:
  std::vector<RDN> rdns_;
};
