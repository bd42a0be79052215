#include "quillon32/attribute_certificate.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/der_writer.h"
#include "support/pki_factory.h"

// No attribute certificate is among the shared test data and the OpenSSL in
// use has no attribute-certificate API, so the certificates here are
// hand-built with the tests' own DER writer and signed with OpenSSL.
namespace {

namespace qt = quillon::testing;
using Bytes = std::vector<uint8_t>;
using W = qt::DerWriter;

Bytes ToBytes(ByteView v) { return Bytes(v.data, v.data + v.size); }

const qt::Key& IssuerKey() { return qt::PooledKey(qt::KeyType::kEcP256, 0); }

const Bytes& IssuerName() {
  static const Bytes name = qt::NameDer(qt::TestName("Quillon Test Attribute Authority"));
  return name;
}

void DirectoryName(W* w) {
  w->Begin(qt::der::CtxCons(4));
  w->Raw(IssuerName());
  w->End();
}

// AttributeCertificateInfo with one part replaced by |variant|; |long_form|
// writes its own length in four octets (BER).
Bytes Acinfo(const std::string& variant, bool long_form = false) {
  W w;
  w.Begin(qt::der::kSequence);
  w.Integer(variant == "version v1" ? 0 : 1);
  w.Begin(qt::der::kSequence);  // Holder: baseCertificateID [0] IssuerSerial
  w.Begin(qt::der::CtxCons(0));
  w.Begin(qt::der::kSequence);
  w.Begin(qt::der::CtxCons(4));
  w.Raw(qt::NameDer(qt::TestName("Holder's CA")));
  w.End();
  w.End();
  w.Integer(77);
  w.End();
  w.End();
  if (variant == "v1Form") {
    w.Begin(qt::der::kSequence);
    w.Tlv(qt::der::Ctx(6), std::string_view("http://aa.example/"));
    DirectoryName(&w);
    w.End();
  } else {
    w.Begin(qt::der::CtxCons(0));  // v2Form
    // issuerName GeneralNames, or only baseCertificateID [0] IssuerSerial.
    const bool base = variant == "baseCertificateID only";
    if (base) w.Begin(qt::der::CtxCons(0));
    w.Begin(qt::der::kSequence);
    DirectoryName(&w);
    w.End();
    if (base) {
      w.Integer(1);
      w.End();
    }
    w.End();
  }
  w.Raw(qt::SignatureAlgorithmDer(IssuerKey()));
  w.Integer(Bytes{0x00, 0xAC, 0x01});
  w.Begin(qt::der::kSequence);
  w.GeneralizedTime(1700000000);
  w.GeneralizedTime(1800000000);
  w.End();
  w.Begin(qt::der::kSequence);  // attributes: one role
  w.Begin(qt::der::kSequence);
  w.Oid("2.5.4.72");
  w.Begin(qt::der::kSet);
  w.Begin(qt::der::kSequence);
  w.Begin(qt::der::CtxCons(1));
  w.Tlv(qt::der::Ctx(6), std::string_view("urn:role:signer"));
  w.End();
  w.End();
  w.End();
  w.End();
  w.End();
  w.Begin(qt::der::kSequence);  // extensions: authority key identifier
  w.Begin(qt::der::kSequence);
  w.Oid("2.5.29.35");
  W aki;
  aki.Begin(qt::der::kSequence);
  aki.Tlv(qt::der::Ctx(0), qt::KeyIdentifier(IssuerKey()));
  aki.End();
  w.OctetString(aki.Take());
  w.End();
  w.End();
  if (variant == "trailing element") w.Null();
  w.End();
  Bytes out = w.Take();
  if (!long_form) return out;
  // The same with its length in four octets.
  const size_t header = out[1] < 0x80 ? 2 : 2 + (out[1] & 0x7F);
  const size_t n = out.size() - header;
  Bytes ber(6 + n);
  ber[0] = 0x30;
  ber[1] = 0x84;
  ber[4] = static_cast<uint8_t>(n >> 8);
  ber[5] = static_cast<uint8_t>(n);
  std::copy(out.begin() + static_cast<long>(header), out.end(), ber.begin() + 6);
  return ber;
}

bool Verifies(const AttributeCertificate& ac) {
  qt::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  const ByteView tbs = ac.acinfo(), sig = ac.signatureValue();
  return EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, IssuerKey().get()) == 1 &&
         EVP_DigestVerify(ctx.get(), sig.data, sig.size, tbs.data, tbs.size) == 1;
}

TEST(AttributeCert, DecodesIssuerSerialValidityAndKeyIdentifier) {
  struct Case {
    const char* variant;
    bool decodes;
    bool issuerName;
  };
  const Case kCases[] = {
      {"v2Form", true, true},
      {"v1Form", true, true},  // directoryName after a URI
      {"baseCertificateID only", true, false},
      {"version v1", false, false},
      {"trailing element", false, false},
  };
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.variant);
    const Bytes acinfo = Acinfo(c.variant);
    const Bytes der = qt::SignTbs(acinfo, IssuerKey());
    AttributeCertificate ac;
    ASSERT_EQ(c.decodes, ac.decode(der.data(), der.size()));
    if (!c.decodes) {
      EXPECT_FALSE(ac.isDecoded());
      continue;
    }
    EXPECT_EQ(2, ac.version());
    EXPECT_EQ(c.issuerName, ac.hasIssuerName());
    if (c.issuerName) {
      EXPECT_EQ(IssuerName(), ToBytes(ac.issuerBytes()));
      EXPECT_EQ("Quillon Test Attribute Authority", ac.issuer().attributeText("2.5.4.3"));
    } else {
      EXPECT_TRUE(ac.issuer().empty());
    }
    EXPECT_EQ("AC01", ac.serialNumber().toHex());
    EXPECT_EQ(1700000000, ac.notBefore().seconds());
    EXPECT_EQ(1800000000, ac.notAfter().seconds());
    AuthorityKeyIdentifier aki;
    ASSERT_TRUE(ac.authorityKeyIdentifier(&aki));
    EXPECT_EQ(qt::KeyIdentifier(IssuerKey()), aki.keyIdentifier());
    EXPECT_EQ(acinfo, ToBytes(ac.acinfo()));
    EXPECT_EQ(qt::SignatureAlgorithmDer(IssuerKey()), ToBytes(ac.signatureAlgorithm()));
    EXPECT_TRUE(Verifies(ac));
    EXPECT_EQ(der, ac.encode());
    EXPECT_EQ(0x30, ac.holder().data[0]);
    EXPECT_EQ(0x30, ac.attributes().data[0]);

    const AttributeCertificate copy(ac);
    EXPECT_EQ(ac, copy);
    EXPECT_NE(ac.der().data, copy.der().data);
    EXPECT_EQ(ac.issuer(), copy.issuer());
  }
}

TEST(AttributeCert, BerKeepsTheSignedBytesAsReceived) {
  const Bytes acinfo = Acinfo("v2Form", true);
  const Bytes der = qt::SignTbs(acinfo, IssuerKey());
  AttributeCertificate ac;
  ASSERT_TRUE(ac.decode(der.data(), der.size()));
  EXPECT_FALSE(ac.isStrictDER());
  EXPECT_EQ(acinfo, ToBytes(ac.acinfo()));
  EXPECT_TRUE(Verifies(ac));
  // The encoding is DER: the same certificate with the acinfo length minimal.
  const size_t outer_header = der[1] < 0x80 ? 2 : 2 + (der[1] & 0x7F);
  W w;
  w.Begin(qt::der::kSequence);
  w.Raw(Acinfo("v2Form"));
  w.Raw(Bytes(der.begin() + static_cast<long>(outer_header + acinfo.size()), der.end()));
  w.End();
  EXPECT_EQ(w.Take(), ac.encode());
  const AttributeCertificate copy(ac);
  EXPECT_EQ(acinfo, ToBytes(copy.acinfo()));
  for (size_t n = 0; n < der.size(); ++n) EXPECT_FALSE(ac.decode(der.data(), n)) << n;
}

}  // namespace
