// Distinguished names: every real name decodes, re-encodes byte for byte,
// prints, parses back and prints from its bytes as it does decoded; the
// printer, parser and normaliser on names made here.
#include "quillon32/name.h"

#include <gtest/gtest.h>
#include <openssl/x509.h>

#include <filesystem>
#include <string>
#include <tuple>
#include <vector>

#include "pki/der.h"
#include "pki/name_der.h"
#include "quillon32/buffer.h"
#include "support/der_writer.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
namespace tder = quillon::testing::der;
using qt::Attr;
using qt::DerWriter;
using qt::NameDer;
using qt::NameSpec;
using Bytes = std::vector<uint8_t>;

struct RealName {
  std::string origin;
  Bytes der;
};

// The subject and issuer of a Certificate, or the issuer of a
// CertificateList, read up to the names and no further.
void ExtractNames(const Bytes& der, const std::string& origin, std::vector<RealName>* out) {
  using namespace quillon::der;
  Parser top{Input(der), Mode::kBer}, outer, tbs;
  if (!top.ReadSequence(&outer) || !outer.ReadSequence(&tbs)) return;
  const Parser start = tbs;
  Input issuer, subject, skipped;
  bool present = false;
  if (tbs.SkipOptional(ContextSpecificConstructed(0), &present) && tbs.ReadRawTLV(&skipped) &&
      tbs.Skip(kSequence) && tbs.ReadRawTLV(&issuer) && tbs.Skip(kSequence) &&
      tbs.ReadRawTLV(&subject)) {
    out->push_back({origin + " subject", subject.ToVector()});
  } else if (tbs = start; !tbs.SkipOptional(kInteger, &present) || !tbs.Skip(kSequence) ||
                          !tbs.ReadRawTLV(&issuer)) {
    return;
  }
  out->push_back({origin + " issuer", issuer.ToVector()});
}

// The names of every certificate and CRL of PKITS and of the real CAs.
const std::vector<RealName>& RealNames() {
  static const std::vector<RealName> names = [] {
    std::vector<RealName> out;
    for (const char* dir : {"nist-pkits/certs", "nist-pkits/crls", "real-crls"}) {
      for (const auto& e : std::filesystem::recursive_directory_iterator(qt::TestDataPath(dir))) {
        if (!e.is_regular_file()) continue;
        const Bytes bytes = qt::ReadFile(e.path().string());
        if (!bytes.empty() && bytes[0] == 0x30) ExtractNames(bytes, e.path().string(), &out);
        const std::string text(bytes.begin(), bytes.end());
        std::string label;
        size_t at = 0;
        for (Buffer block; block.readPEMBlock(text, &at, &label);) {
          ExtractNames(block.bytes(), e.path().string() + " " + label, &out);
        }
      }
    }
    return out;
  }();
  return names;
}

Name Decoded(const Bytes& der) {
  Name n;
  EXPECT_TRUE(n.decode(der.data(), der.size()));
  return n;
}

// Printing a name straight from its bytes gives what decoding it and
// printing the Name gives, and accepts exactly the bytes decoding accepts.
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

// Every real name OpenSSL reads re-encodes byte for byte, and its printed
// text parses back to a name printing the same text; the deliberately broken
// ones fail.
TEST(NameReal, RoundTripAndPrintFromDer) {
  const auto& names = RealNames();
  ASSERT_GT(names.size(), 900u);
  for (const auto& real : names) {
    SCOPED_TRACE(real.origin);
    ExpectPrintedLikeDecoded(real.der, real.origin);
    const unsigned char* p = real.der.data();
    X509_NAME* x = d2i_X509_NAME(nullptr, &p, static_cast<long>(real.der.size()));
    X509_NAME_free(x);
    Name n;
    ASSERT_EQ(n.decode(real.der.data(), real.der.size()), x != nullptr);
    if (x == nullptr) continue;
    EXPECT_EQ(n.encode(), real.der);
    const std::string text = n.toString();
    Name back;
    ASSERT_TRUE(back.parse(text.c_str())) << text;
    EXPECT_EQ(back.toString(), text);
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
Bytes OneRdn(const std::vector<Bytes>& atvs) {
  return Wrap(tder::kSequence, {Wrap(tder::kSet, atvs)});
}

// The printed text is the key of stored CA tables and CRL caches, so it is
// checked to the character; each name also prints so from its bytes, and the
// text parses back to a name printing the same text.
TEST(NamePrint, TableOrderLabelsCharsetsAndQuoting) {
  NameSpec many;
  for (int i = 0; i < 35; ++i) many.push_back({Attr{"OU", std::to_string(i)}});
  std::string first30;
  for (int i = 0; i < 30; ++i) first30 += (i ? ", OU=" : "OU=") + std::to_string(i);
  const struct { const char* what; NameSpec name; std::string text; } kCases[] = {
      {"table order", {{{"CN", "Test"}}, {{"O", "Org"}}, {{"C", "IT"}}}, "C=IT, O=Org, CN=Test"},
      {"multi-valued RDN", {{{"C", "IT"}}, {{"CN", "a"}, {"O", "b"}}}, "C=IT, O=b, CN=a"},
      {"repeated type in name order", {{{"OU", "one"}}, {{"OU", "two"}}}, "OU=one, OU=two"},
      {"short labels", {{{"emailAddress", "e@x"}}, {{"DC", "dc"}}, {{"ST", "st"}}},
       "PROV=st, DOM=dc, EMAL=e@x"},
      {"types outside the table", {{{"initials", "Q"}}, {{"UID", "u"}}, {{"CN", "x"}}}, "CN=x"},
      {"comma and plus quoted", {{{"O", "A, B"}}, {{"CN", "x+y"}}}, "O=\"A, B\", CN=\"x+y\""},
      {"escaped comma bare", {{{"CN", "a\\,b"}}}, "CN=a\\,b"},
      {"leading blank quoted", {{{"O", "  x "}}, {{"CN", "y "}}}, "O=\"  x \", CN=y "},
      {"quotes", {{{"CN", "say \"hi\", ok"}}, {{"description", "\"q"}}},
       "CN=\"say \\\"hi\\\", ok\", DESCR=\"\\\"q\""},
      {"final backslash", {{{"O", "dir\\"}}, {{"CN", "x"}}}, "O=dir\\ , CN=x"},
      {"NUL", {{{"CN", std::string("a\0b", 3)}}}, "CN=a\\00b"},
      {"empty value", {{{"O", ""}}, {{"CN", "x"}}}, "O=, CN=x"},
      {"first 30 attributes", many, first30},
  };
  std::vector<std::tuple<std::string, Bytes, std::string>> cases = {
      {"BMPString", OneRdn({Atv("2.5.4.3", tder::kBmpString, {"\0C\0i\0t\0t\0\xE0", 10})}),
       "CN=Città"},
      {"UniversalString", OneRdn({Atv("2.5.4.3", tder::kUniversalString, {"\0\x01\xD1\x1E", 4})}),
       "CN=𝄞"},
      {"T61String as Latin-1", OneRdn({Atv("2.5.4.3", tder::kT61String, "caf\xE9")}), "CN=café"}};
  for (const auto& c : kCases) cases.emplace_back(c.what, NameDer(c.name), c.text);
  for (const auto& [what, der, text] : cases) {
    EXPECT_EQ(Decoded(der).toString(), text) << what;
    ExpectPrintedLikeDecoded(der, what);
    Name back;
    ASSERT_TRUE(back.parse(text.c_str())) << what;
    EXPECT_EQ(back.toString(), text) << what;
  }
}

TEST(NameParse, TextForms) {
  const std::pair<const char*, const char*> kCases[] = {  // printed text; nullptr: rejected
      {"CN=Test CA, O=Example + OU=Unit, C=IT", "C=IT, O=Example , OU=Unit, CN=Test CA"},
      {"cn=x", "CN=x"}, {"OID.2.5.4.3=x", "CN=x"}, {"1.2.3.4=x", ""}, {"", ""},
      {"CN=a\\+b+O=c", "O=c, CN=a\\+b"},
      {"CN=\"say \\\"hi\\\"\" ,O=x", "O=x, CN=say \"hi\""},
      {"CN=\"a\\b\"", "CN=a\\b"},
      {" \t\nO=x,\n\tCN=  y", "O=x, CN=y"},
      {"ST=a, EMAILADDRESS=g, E=j, email=l, prov=n", "PROV=a, PROV=n, EMAL=g, EMAL=j, EMAL=l"},
      {"CN", nullptr}, {"XX=1", nullptr}, {"CN =x", nullptr}, {"CN=\"abc", nullptr},
      {"CN=\"a\" b", nullptr}, {"CN=a,", nullptr}, {"OID.CN=x", nullptr},
  };
  for (const auto& [text, printed] : kCases) {
    Name n;
    ASSERT_TRUE(n.parse("C=ZZ"));
    const bool ok = n.parse(text);
    EXPECT_EQ(ok, printed != nullptr) << text;
    EXPECT_EQ(n.toString(), ok ? printed : "C=ZZ") << text;
  }
  EXPECT_FALSE(Name().parse(nullptr));
}

// Parsed names encode with the usual string types (PrintableString C,
// IA5String DC and e-mail, UTF-8 else), as OpenSSL writes the same name;
// normalise() relabels and converts held values the same way.
TEST(NameNormalise, ParsedNamesAndValueTypes) {
  Name n;
  ASSERT_TRUE(n.parse("C=IT,O=Città+ OU=Unit,DC=example,E=a@b.it,serialNumber=IT-42,CN=Ελλάδα"));
  EXPECT_EQ(n.encode(), NameDer({{{"C", "IT"}}, {{"O", "Città"}, {"OU", "Unit"}},
                                 {{"DC", "example"}}, {{"emailAddress", "a@b.it"}},
                                 {{"serialNumber", "IT-42"}}, {{"CN", "Ελλάδα"}}}));

  const Bytes bmp = {0x00, 'a', 0x00, 0xE9}, ucs4 = {0, 0, 0, 'a', 0, 0, 0, 0xE9};
  const Bytes latin = {'a', 0xE9}, utf8 = {'a', 0xC3, 0xA9};
  const struct { const char* type; int tag; Bytes value; int tag_after; Bytes after; } kCases[] = {
      {"2.5.4.5", 30, bmp, 19, utf8},
      {"2.5.4.46", 20, latin, 19, latin},  // relabelled only
      {"0.9.2342.19200300.100.1.25", 28, ucs4, 22, utf8},
      {"2.5.4.3", 26, {'v'}, 26, {'v'}},  // VisibleString stays
  };
  for (const auto& c : kCases) {
    Name name;
    name.rdns().push_back({{c.type, c.tag, c.value}});
    name.normalise();
    EXPECT_EQ(name.rdns()[0][0].valueTag, c.tag_after) << c.type << " " << c.tag;
    EXPECT_EQ(name.rdns()[0][0].value, c.after) << c.type << " " << c.tag;
  }
}

TEST(NameDecode, MalformedInputsLeaveTheNameUnchanged) {
  const Bytes cn = Atv("2.5.4.3", tder::kUtf8String, "x"), oid = {0x06, 0x03, 0x55, 0x04, 0x03};
  const Bytes good = OneRdn({cn});
  Bytes trailing = good, truncated(good.begin(), good.end() - 1), bad_oid = cn;
  trailing.push_back(0x00);
  bad_oid[3] = 0x80;  // non-minimal first arc
  const std::pair<const char*, Bytes> kCases[] = {
      {"empty input", {}},
      {"empty RDN", OneRdn({})},
      {"RDN not a SET", Wrap(tder::kSequence, {Wrap(tder::kSequence, {cn})})},
      {"trailing bytes", trailing},
      {"truncated", truncated},
      {"constructed value", OneRdn({Wrap(tder::kSequence, {oid, Wrap(tder::kSequence, {})})})},
      {"context-specific value", OneRdn({Atv("2.5.4.3", tder::Ctx(0), "x")})},
      {"extra element in ATV", OneRdn({Wrap(tder::kSequence, {oid, {0x0C, 0x00}, {0x05, 0x00}})})},
      {"malformed OID", OneRdn({bad_oid})},
      {"type not an OID", OneRdn({Wrap(tder::kSequence, {{0x0C, 0x01, 'x'}, {0x0C, 0x01, 'y'}})})},
  };
  for (const auto& [what, der] : kCases) {
    Name n;
    ASSERT_TRUE(n.parse("CN=kept"));
    EXPECT_FALSE(n.decode(der.data(), der.size())) << what;
    EXPECT_EQ(n.toString(), "CN=kept") << what;
    ExpectPrintedLikeDecoded(der, what);
  }
  EXPECT_FALSE(Name().decode(nullptr, 0));
}

// BER (indefinite lengths, a constructed string, a SET out of order) and the
// empty name decode, encode as DER and print from their bytes.
TEST(NameDecode, BerAndEmptyNamesEncodeAsDer) {
  const Bytes cn = Atv("2.5.4.3", tder::kUtf8String, "ab");
  const Bytes c = Atv("2.5.4.6", tder::kPrintableString, "IT");
  Bytes ber = {0x30, 0x80, 0x31, 0x80};
  ber.insert(ber.end(), c.begin(), c.end());
  ber.insert(ber.end(), {0x30, 0x80, 0x06, 0x03, 0x55, 0x04, 0x03, 0x2C, 0x80, 0x0C, 0x01, 'a',
                         0x0C, 0x01, 'b', 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00});
  const Name n = Decoded(ber);
  EXPECT_EQ(n.encode(), OneRdn({cn, c}));
  EXPECT_EQ(n.toString(), "C=IT, CN=ab");
  const Name empty = Decoded({0x30, 0x00});
  EXPECT_EQ(empty.toString(), "");
  EXPECT_EQ(empty.encode(), (Bytes{0x30, 0x00}));
  for (const Bytes& der : {ber, Bytes{0x30, 0x00}}) ExpectPrintedLikeDecoded(der, "BER");
}

}  // namespace
