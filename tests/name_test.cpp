#include "quillon32/name.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "pki/der.h"
#include "pki/name_der.h"
#include "support/der_writer.h"
#include "support/pki_factory.h"

namespace {

using quillon::testing::Attr;
using quillon::testing::DerWriter;
using quillon::testing::NameDer;
using quillon::testing::NameSpec;
using quillon::testing::ReadFile;
using quillon::testing::StrType;
using quillon::testing::TestDataPath;
namespace tder = quillon::testing::der;
using Bytes = std::vector<uint8_t>;

struct RealName {
  std::string origin;
  Bytes der;
};

// The subject and issuer TLVs of a Certificate, or the issuer TLV of a
// CertificateList, read up to the names and no further.
void ExtractNames(const Bytes& der, const std::string& origin, std::vector<RealName>* out) {
  using namespace quillon::der;
  Parser top{Input(der), Mode::kBer}, outer, tbs;
  if (!top.ReadSequence(&outer) || !outer.ReadSequence(&tbs)) return;
  const Parser start = tbs;
  Input issuer, subject, skipped;
  bool present = false;
  if (tbs.SkipOptional(ContextSpecificConstructed(0), &present) && tbs.ReadRawTLV(&skipped) &&
      tbs.Skip(kSequence) && tbs.ReadRawTLV(&issuer) && tbs.Skip(kSequence) && tbs.ReadRawTLV(&subject)) {
    out->push_back({origin + " subject", subject.ToVector()});
  } else if (tbs = start; !tbs.SkipOptional(kInteger, &present) || !tbs.Skip(kSequence) ||
                          !tbs.ReadRawTLV(&issuer)) {
    return;
  }
  out->push_back({origin + " issuer", issuer.ToVector()});
}

// Names of every certificate and CRL of the PKITS suite and of the real CAs.
const std::vector<RealName>& RealNames() {
  static const std::vector<RealName> names = [] {
    std::vector<RealName> out;
    for (const char* dir : {"nist-pkits/certs", "nist-pkits/crls", "real-crls"}) {
      for (const auto& e : std::filesystem::recursive_directory_iterator(TestDataPath(dir))) {
        if (!e.is_regular_file()) continue;
        const Bytes bytes = ReadFile(e.path().string());
        if (!bytes.empty() && bytes[0] == 0x30) ExtractNames(bytes, e.path().string(), &out);
        BIO* bio = BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size()));
        char *label = nullptr, *header = nullptr;
        unsigned char* data = nullptr;
        long len = 0;
        while (PEM_read_bio(bio, &label, &header, &data, &len) == 1) {
          ExtractNames(Bytes(data, data + len), e.path().string() + " " + label, &out);
          OPENSSL_free(label);
          OPENSSL_free(header);
          OPENSSL_free(data);
        }
        BIO_free(bio);
        ERR_clear_error();  // files without PEM blocks
      }
    }
    return out;
  }();
  return names;
}

// The UTF-8 text OpenSSL reads for the first attribute of |nid|; false when absent.
bool OpenSslText(const Bytes& der, int nid, std::string* out) {
  const unsigned char* p = der.data();
  X509_NAME* name = d2i_X509_NAME(nullptr, &p, static_cast<long>(der.size()));
  const int i = name ? X509_NAME_get_index_by_NID(name, nid, -1) : -1;
  unsigned char* utf8 = nullptr;
  const int n = i < 0 ? -1 : ASN1_STRING_to_UTF8(&utf8, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i)));
  if (n >= 0) out->assign(reinterpret_cast<char*>(utf8), static_cast<size_t>(n));
  OPENSSL_free(utf8);
  X509_NAME_free(name);
  return n >= 0;
}

Name Decoded(const Bytes& der) {
  Name n;
  EXPECT_TRUE(n.decode(der.data(), der.size()));
  return n;
}

std::string Printed(const NameSpec& spec) { return Decoded(NameDer(spec)).toString(); }

// Every real name re-encodes byte for byte, carries the values OpenSSL reads,
// and its printed text parses back to a name that prints the same text.
TEST(NameReal, DecodeEncodePrintAndParseBack) {
  const auto& names = RealNames();
  ASSERT_GT(names.size(), 900u);
  for (const auto& real : names) {
    SCOPED_TRACE(real.origin);
    const unsigned char* p = real.der.data();
    X509_NAME* x = d2i_X509_NAME(nullptr, &p, static_cast<long>(real.der.size()));
    X509_NAME_free(x);
    if (x == nullptr) {  // a deliberately broken test file
      Name broken;
      EXPECT_FALSE(broken.decode(real.der.data(), real.der.size()));
      continue;
    }
    const Name n = Decoded(real.der);
    EXPECT_EQ(n.encode(), real.der);
    const std::pair<int, const char*> kChecks[] = {{NID_commonName, "2.5.4.3"}, {NID_organizationName, "2.5.4.10"},
                                                   {NID_countryName, "2.5.4.6"}, {NID_organizationalUnitName, "OU"}};
    for (const auto& [nid, oid] : kChecks) {
      std::string expected;
      if (OpenSslText(real.der, nid, &expected)) {
        EXPECT_EQ(n.attributeText(oid), expected) << oid;
      }
    }
    const std::string text = n.toString();
    Name back;
    ASSERT_TRUE(back.parse(text.c_str())) << text;
    EXPECT_EQ(back.toString(), text);
  }
}

// Splits an RFC 4514 text of the PKITS facts into (type, value) pairs in DER
// order, with its escapes undone.
std::vector<std::pair<std::string, std::string>> FactPairs(const std::string& text) {
  std::vector<std::pair<std::string, std::string>> pairs;
  std::string field;
  for (size_t i = 0; i <= text.size() && !text.empty(); ++i) {
    if (i < text.size() && text[i] == '\\') {
      field += text[++i];
    } else if (i == text.size() || text[i] == ',') {
      const size_t eq = field.find('=');
      pairs.insert(pairs.begin(), {field.substr(0, eq), field.substr(eq + 1)});
      field.clear();
    } else {
      field += text[i];
    }
  }
  return pairs;
}

// The PKITS facts give every subject and issuer; the printed text, read back,
// must carry the same values type by type (and none of the types the table
// lacks).
TEST(NameReal, PkitsPrintedValuesMatchTheFacts) {
  const std::map<std::string, std::string> kFactTypes = {
      {"C", "2.5.4.6"}, {"O", "2.5.4.10"}, {"OU", "2.5.4.11"}, {"CN", "2.5.4.3"}, {"ST", "2.5.4.8"},
      {"L", "2.5.4.7"}, {"DC", "0.9.2342.19200300.100.1.25"}};
  std::ifstream csv(TestDataPath("nist-pkits/cert-facts.csv"));
  std::string line;
  std::getline(csv, line);
  int checked = 0;
  while (std::getline(csv, line)) {
    // cert,subject,issuer,... with the names in double quotes.
    std::vector<std::string> fields(1);
    bool quoted = false;
    for (char c : line) {
      if (c == '"') {
        quoted = !quoted;
      } else if (c == ',' && !quoted) {
        fields.emplace_back();
      } else {
        fields.back() += c;
      }
    }
    ASSERT_GT(fields.size(), 3u) << line;
    const std::string& file = fields[0];
    std::vector<RealName> names;  // subject, issuer
    ExtractNames(ReadFile(TestDataPath("nist-pkits/certs/" + file)), file, &names);
    ASSERT_EQ(names.size(), 2u) << file;
    const std::string facts[2] = {fields[1], fields[2]};
    for (int i = 0; i < 2; ++i) {
      const std::string text = Decoded(names[i].der).toString();
      Name printed;
      ASSERT_TRUE(printed.parse(text.c_str())) << text;
      std::map<std::string, std::vector<std::string>> expected, actual;
      for (const auto& [type, value] : FactPairs(facts[i])) {
        const auto it = kFactTypes.find(type);
        expected[it != kFactTypes.end() ? it->second : type].push_back(value);
      }
      expected.erase("2.5.4.43");  // initials and generationQualifier: not in the table
      expected.erase("2.5.4.44");
      for (const auto& rdn : printed.rdns())
        for (const auto& a : rdn) actual[a.type].emplace_back(a.value.begin(), a.value.end());
      EXPECT_EQ(actual, expected) << file << ": " << text;
      ++checked;
    }
  }
  EXPECT_GT(checked, 800);
}

struct PrintCase {
  const char* what;
  NameSpec spec;
  const char* text;
};

TEST(NamePrint, TableOrderLabelsCharsetsAndQuoting) {
  const PrintCase cases[] = {
      {"table order, not name order", {{{"CN", "Test"}}, {{"O", "Org"}}, {{"C", "IT"}}}, "C=IT, O=Org, CN=Test"},
      {"multi-valued RDN", {{{"C", "IT"}}, {{"CN", "a"}, {"O", "b"}}}, "C=IT, O=b, CN=a"},
      {"repeated type in name order", {{{"OU", "one"}}, {{"OU", "two"}}}, "OU=one, OU=two"},
      {"first labels of every type",
       {{{"description", "d"}}, {{"emailAddress", "e@x"}}, {{"pseudonym", "p"}}, {{"dnQualifier", "q"}},
        {{"title", "t"}}, {{"GN", "g"}}, {{"SN", "s"}}, {{"DC", "dc"}}, {{"serialNumber", "1"}},
        {{"CN", "c"}}, {{"L", "l"}}, {{"ST", "st"}}, {{"organizationIdentifier", "VATIT-1"}}},
       "PROV=st, L=l, CN=c, SER=1, DOM=dc, SUR=s, GIVEN=g, TITLE=t, DNQUALIF=q, PSEUD=p, EMAL=e@x, DESCR=d, "
       "ORGID=VATIT-1"},
      {"types outside the table are left out", {{{"initials", "Q"}}, {{"UID", "u"}}, {{"CN", "x"}}}, "CN=x"},
      {"BMPString", {{{"CN", "Città", StrType::kBmp}}}, "CN=Città"},
      {"UniversalString", {{{"CN", "Ελλάδα 𝄞", StrType::kUniversal}}}, "CN=Ελλάδα 𝄞"},
      {"T61String as Latin-1", {{{"CN", "caf\xE9", StrType::kT61}}}, "CN=café"},
      {"UTF8String", {{{"O", "AC 2 étoiles"}}}, "O=AC 2 étoiles"},
      {"comma and plus quoted", {{{"O", "A, B"}}, {{"CN", "x+y"}}}, "O=\"A, B\", CN=\"x+y\""},
      {"escaped comma stays bare", {{{"CN", "a\\,b"}}}, "CN=a\\,b"},
      {"leading blank quoted, trailing kept", {{{"O", "  x "}}, {{"CN", "y "}}}, "O=\"  x \", CN=y "},
      {"quote inside", {{{"CN", "say \"hi\", ok"}}, {{"description", "\"q"}}},
       "CN=\"say \\\"hi\\\", ok\", DESCR=\"\\\"q\""},
      {"final backslash gets a blank", {{{"O", "dir\\"}}, {{"CN", "x"}}}, "O=dir\\ , CN=x"},
      {"NUL written as \\00", {{{"CN", std::string("a\0b", 3)}}}, "CN=a\\00b"},
      {"empty value", {{{"O", ""}}, {{"CN", "x"}}}, "O=, CN=x"},
  };
  for (const auto& c : cases) EXPECT_EQ(Printed(c.spec), c.text) << c.what;

  NameSpec many;
  for (int i = 0; i < 35; ++i) many.push_back({Attr{"OU", std::to_string(i)}});
  const std::string text = Printed(many);
  EXPECT_EQ(std::count(text.begin(), text.end(), '='), 30);
  EXPECT_EQ(text.substr(text.size() - 7), ", OU=29");
}

TEST(NamePrint, EveryPrintedTextParsesToTheSameText) {
  const char* values[] = {"a,b", "a+b", " lead", "trail ", "\"q\"", "x\\\"y", "a\\,b", "end\\",
                          "\\", "\\\"", "", "\t\n", "=,=", "\"", "a\\+", "\\ , \\"};
  for (const char* v : values) {
    const NameSpec spec = {{{"C", v}}, {{"O", v}}, {{"CN", v}}, {{"DC", v}}};
    const std::string text = Printed(spec);
    Name parsed;
    ASSERT_TRUE(parsed.parse(text.c_str())) << text;
    EXPECT_EQ(parsed.toString(), text);
    // Values are kept exactly, except that a final backslash gains a blank.
    const std::string want = std::string(v) + (std::string(v).ends_with('\\') ? " " : "");
    EXPECT_EQ(parsed.attributeText("CN"), want) << text;
    // With the types normalise() gives, the parsed name is the printed one.
    if (want == v) {
      EXPECT_EQ(parsed.encode(), NameDer(spec)) << text;
    }
  }
}

struct ParseCase {
  const char* text;
  const char* printed;  // nullptr: rejected
};

TEST(NameParse, TextForms) {
  const ParseCase cases[] = {
      {"CN=Test CA, O=Example + OU=Unit, C=IT", "C=IT, O=Example , OU=Unit, CN=Test CA"},
      {"cn=x", "CN=x"},
      {"OID.2.5.4.3=x", "CN=x"},
      {"2.5.4.3=x", "CN=x"},
      {"CN=a\\,b", "CN=a\\,b"},
      {"CN=a\\+b+O=c", "O=c, CN=a\\+b"},
      {"CN=\"a, b\"", "CN=\"a, b\""},
      {"CN=\"say \\\"hi\\\"\" ,O=x", "O=x, CN=say \"hi\""},
      {"CN=\"a\\b\"", "CN=a\\b"},
      {" \t\nO=x,\n\tCN=  y", "O=x, CN=y"},
      {"ST=a, serialNumber=1, dc=b, SN=c, givenName=d, dnQualifier=e, pseudonym=f, EMAILADDRESS=g, "
       "DESCRIPTION=h, title=i, E=j, organizationIdentifier=k, email=l, Description=m, prov=n",
       "PROV=a, PROV=n, SER=1, DOM=b, SUR=c, GIVEN=d, TITLE=i, DNQUALIF=e, PSEUD=f, EMAL=g, EMAL=j, "
       "EMAL=l, DESCR=h, DESCR=m, ORGID=k"},
      {"1.2.3.4=x", ""},
      {"", ""},
      {"CN=", "CN="},
      {"CN", nullptr},
      {"=x", nullptr},
      {"XX=1", nullptr},
      {"CN =x", nullptr},
      {"CN=\"abc", nullptr},
      {"CN=\"abc\\\"", nullptr},
      {"CN=\"a\" b", nullptr},
      {"CN=a,", nullptr},
      {"OID.CN=x", nullptr},
      {"1.2..3=x", nullptr},
      {"3.1=x", nullptr},
  };
  for (const auto& c : cases) {
    Name n;
    ASSERT_TRUE(n.parse("C=ZZ"));
    const bool ok = n.parse(c.text);
    EXPECT_EQ(ok, c.printed != nullptr) << c.text;
    EXPECT_EQ(n.toString(), ok ? c.printed : "C=ZZ") << c.text;
  }
  Name n;
  ASSERT_TRUE(n.parse("CN=Test CA, O=Example + OU=Unit, C=IT"));
  ASSERT_EQ(n.rdns().size(), 3u);
  EXPECT_EQ(n.rdns()[1].size(), 2u);
  EXPECT_FALSE(n.parse(nullptr));
}

// Parsed names encode as OpenSSL's encoder writes the same name with the
// usual string types (PrintableString C, IA5String DC and e-mail, UTF-8 else).
TEST(NameParse, EncodesWithTheNormalisedStringTypes) {
  Name n;
  ASSERT_TRUE(n.parse("C=IT,O=Città+ OU=Unit,DC=example,E=a@b.it,serialNumber=IT-42,CN=Ελλάδα"));
  EXPECT_EQ(n.encode(), NameDer({{{"C", "IT"}}, {{"O", "Città"}, {"OU", "Unit"}}, {{"DC", "example"}},
                                 {{"emailAddress", "a@b.it"}}, {{"serialNumber", "IT-42"}}, {{"CN", "Ελλάδα"}}}));
  Name reordered;
  ASSERT_TRUE(reordered.parse("C=IT,OU=Unit+ O=Città,DC=example,E=a@b.it,serialNumber=IT-42,CN=Ελλάδα"));
  EXPECT_EQ(reordered, n);
  ASSERT_TRUE(reordered.parse("C=IT,O=Città,OU=Unit,DC=example,E=a@b.it,serialNumber=IT-42,CN=Ελλάδα"));
  EXPECT_NE(reordered, n);
  EXPECT_EQ(reordered.toString(), n.toString());
}

TEST(NameNormalise, ValueTypes) {
  const Bytes bmp = {0x00, 'a', 0x00, 0xE9}, ucs4 = {0, 0, 0, 'a', 0, 0, 0, 0xE9}, latin = {'a', 0xE9};
  const Bytes utf8 = {'a', 0xC3, 0xA9};
  const struct {
    const char* type;
    int tag;
    Bytes value;
    int tagAfter;
    Bytes valueAfter;
  } cases[] = {
      {"2.5.4.6", 12, {'I', 'T'}, 19, {'I', 'T'}},
      {"2.5.4.5", 30, bmp, 19, utf8},
      {"2.5.4.46", 20, latin, 19, latin},  // relabelled only
      {"0.9.2342.19200300.100.1.25", 28, ucs4, 22, utf8},
      {"1.2.840.113549.1.9.1", 12, utf8, 22, utf8},
      {"2.5.4.3", 4, {0xFF}, 12, {0xFF}},
      {"2.5.4.10", 20, latin, 12, utf8},
      {"2.5.4.11", 22, {'x'}, 12, {'x'}},
      {"1.2.3.4", 30, bmp, 12, utf8},
      {"2.5.4.3", 26, {'v'}, 26, {'v'}},  // VisibleString stays
      {"2.5.4.3", 2, {0x01}, 2, {0x01}},
  };
  for (const auto& c : cases) {
    Name n;
    n.rdns().push_back({{c.type, c.tag, c.value}});
    n.normalise();
    EXPECT_EQ(n.rdns()[0][0].valueTag, c.tagAfter) << c.type << " " << c.tag;
    EXPECT_EQ(n.rdns()[0][0].value, c.valueAfter) << c.type << " " << c.tag;
  }
}

Bytes Atv(const char* oid, uint8_t tag, std::string_view value) {
  DerWriter w;
  w.Begin(tder::kSequence);
  w.Oid(oid);
  w.Tlv(tag, value);
  w.End();
  return w.Take();
}

Bytes Wrap(uint8_t tag, const std::vector<Bytes>& parts) {
  DerWriter w;
  w.Begin(tag);
  for (const auto& p : parts) w.Raw(p);
  w.End();
  return w.Take();
}

// A name of one RDN holding |atvs|.
Bytes OneRdn(const std::vector<Bytes>& atvs) { return Wrap(tder::kSequence, {Wrap(tder::kSet, atvs)}); }

TEST(NameDecode, MalformedInputsLeaveTheNameUnchanged) {
  const Bytes cn = Atv("2.5.4.3", tder::kUtf8String, "x"), oid = {0x06, 0x03, 0x55, 0x04, 0x03};
  const Bytes good = OneRdn({cn});
  Bytes trailing = good, truncated(good.begin(), good.end() - 1), bad_oid = cn;
  trailing.push_back(0x00);
  bad_oid[3] = 0x80;  // non-minimal first arc
  const std::pair<const char*, Bytes> cases[] = {
      {"empty input", {}},
      {"empty RDN", OneRdn({})},
      {"RDN not a SET", Wrap(tder::kSequence, {Wrap(tder::kSequence, {cn})})},
      {"name not a SEQUENCE", Wrap(tder::kSet, {Wrap(tder::kSet, {cn})})},
      {"trailing bytes", trailing},
      {"truncated", truncated},
      {"constructed value", OneRdn({Wrap(tder::kSequence, {oid, Wrap(tder::kSequence, {})})})},
      {"context-specific value", OneRdn({Atv("2.5.4.3", tder::Ctx(0), "x")})},
      {"value missing", OneRdn({Wrap(tder::kSequence, {oid})})},
      {"extra element in ATV", OneRdn({Wrap(tder::kSequence, {oid, {0x0C, 0x00}, {0x05, 0x00}})})},
      {"malformed OID", OneRdn({bad_oid})},
      {"ATV not a SEQUENCE", OneRdn({{0x05, 0x00}})},
      {"type not an OID", OneRdn({Wrap(tder::kSequence, {{0x0C, 0x01, 'x'}, {0x0C, 0x01, 'y'}})})},
  };
  for (const auto& [what, der] : cases) {
    Name n;
    ASSERT_TRUE(n.parse("CN=kept"));
    EXPECT_FALSE(n.decode(der.data(), der.size())) << what;
    EXPECT_EQ(n.toString(), "CN=kept") << what;
  }
  Name n;
  EXPECT_FALSE(n.decode(nullptr, 0));
  ASSERT_TRUE(n.decode(good.data(), good.size()));
  EXPECT_EQ(n.toString(), "CN=x");
}

TEST(NameDecode, BerAndEmptyNamesEncodeAsDer) {
  const Bytes cn = Atv("2.5.4.3", tder::kUtf8String, "ab"), c = Atv("2.5.4.6", tder::kPrintableString, "IT");
  // Indefinite lengths, a constructed UTF8String, and a SET out of DER order.
  Bytes ber = {0x30, 0x80, 0x31, 0x80};
  ber.insert(ber.end(), c.begin(), c.end());
  ber.insert(ber.end(), {0x30, 0x80, 0x06, 0x03, 0x55, 0x04, 0x03, 0x2C, 0x80, 0x0C, 0x01, 'a', 0x0C, 0x01, 'b',
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
  const Name n = Decoded(ber);
  EXPECT_EQ(n.encode(), OneRdn({cn, c}));
  EXPECT_EQ(n.toString(), "C=IT, CN=ab");

  const Name empty = Decoded({0x30, 0x00});
  EXPECT_TRUE(empty.empty());
  EXPECT_EQ(empty.toString(), "");
  EXPECT_EQ(empty.encode(), (Bytes{0x30, 0x00}));
  EXPECT_EQ(empty, Name());
  EXPECT_NE(empty, n);
}

}  // namespace

namespace {

// Printing a name straight from its bytes must give what decoding it and
// printing the Name gives, and accept exactly the bytes decoding accepts.
void ExpectPrintedLikeDecoded(const Bytes& der, const std::string& what) {
  const quillon::der::Input input(der);
  Name n;
  const bool decoded = n.decode(der.data(), der.size());
  std::string text = "stale";
  EXPECT_EQ(quillon::pki::PrintNameDer(input, &text), decoded) << what;
  EXPECT_EQ(text, decoded ? n.toString() : "") << what;
  EXPECT_EQ(quillon::pki::IsValidName(input), decoded) << what;
  if (quillon::der::IsStrictDer(input)) {
    EXPECT_EQ(quillon::pki::IsValidNameInStrictDer(input), decoded) << what;
    std::string strict_text = "stale";
    EXPECT_EQ(quillon::pki::PrintStrictDerName(input, &strict_text), decoded) << what;
    EXPECT_EQ(strict_text, text) << what;
  }
}

TEST(NameDer, PrintsEveryRealNameAndItsTruncationsLikeTheDecodedName) {
  const auto& names = RealNames();
  ASSERT_GT(names.size(), 900u);
  for (const auto& real : names) ExpectPrintedLikeDecoded(real.der, real.origin);
  // Every cut of a few names of different shapes.
  for (size_t i = 0; i < names.size(); i += names.size() / 7) {
    const Bytes& der = names[i].der;
    for (size_t cut = 0; cut < der.size(); ++cut) {
      ExpectPrintedLikeDecoded(Bytes(der.begin(), der.begin() + static_cast<ptrdiff_t>(cut)),
                               names[i].origin + " cut " + std::to_string(cut));
    }
  }
}

TEST(NameDer, PrintsMadeBerAndMalformedNamesLikeTheDecodedName) {
  const Bytes cn = Atv("2.5.4.3", tder::kUtf8String, "ab"), c = Atv("2.5.4.6", tder::kPrintableString, "IT");
  Bytes ber = {0x30, 0x80, 0x31, 0x80};  // indefinite lengths, a constructed string, unsorted SET
  ber.insert(ber.end(), c.begin(), c.end());
  ber.insert(ber.end(), {0x30, 0x80, 0x06, 0x03, 0x55, 0x04, 0x03, 0x2C, 0x80, 0x0C, 0x01, 'a', 0x0C, 0x01, 'b',
                         0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
  // Long-form lengths where short ones would do, as LDAP servers send them.
  Bytes long_form = {0x30, 0x81, 0x00, 0x31, 0x81, 0x00};
  long_form.insert(long_form.end(), cn.begin(), cn.end());
  long_form[5] = static_cast<uint8_t>(cn.size());
  long_form[2] = static_cast<uint8_t>(long_form.size() - 3);
  NameSpec many;
  for (int i = 0; i < 35; ++i) many.push_back({Attr{"OU", std::to_string(i)}});
  const std::pair<const char*, Bytes> cases[] = {
      {"BER", ber},
      {"long-form lengths", long_form},
      {"empty name", {0x30, 0x00}},
      {"charsets", NameDer({{{"CN", "Città", StrType::kBmp}}, {{"O", "Ελλάδα 𝄞", StrType::kUniversal}},
                            {{"L", "caf\xE9", StrType::kT61}}})},
      {"quoting", NameDer({{{"O", "A, B"}}, {{"CN", " x+y"}}, {{"OU", "say \"hi\""}}, {{"L", "a\\,b"}}})},
      {"NUL and final backslash", NameDer({{{"CN", std::string("a\0b", 3)}}, {{"O", "dir\\"}}})},
      {"order, repeats, unprinted types",
       NameDer({{{"CN", "a"}, {"O", "b"}}, {{"OU", "1"}}, {{"initials", "Q"}}, {{"OU", "2"}}, {{"C", "IT"}}})},
      {"more than 30 printed attributes", NameDer(many)},
      {"empty RDN", OneRdn({})},
      {"constructed value", OneRdn({Wrap(tder::kSequence, {{0x06, 0x03, 0x55, 0x04, 0x03}, Wrap(tder::kSequence, {})})})},
      {"not a name", {0x05, 0x00}},
      {"empty input", {}},
  };
  for (const auto& [what, der] : cases) ExpectPrintedLikeDecoded(der, what);
}

}  // namespace
