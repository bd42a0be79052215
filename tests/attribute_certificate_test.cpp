// Attribute certificates. None is among the shared test data and the OpenSSL
// in use has no attribute-certificate API, so they are hand-built with the
// tests' own DER writer and signed with OpenSSL.
#include "quillon32/attribute_certificate.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <string>
#include <vector>

#include "support/der_writer.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
namespace tag = quillon::testing::der;
using Bytes = std::vector<uint8_t>;

Bytes ToBytes(ByteView v) { return Bytes(v.data, v.data + v.size); }

const qt::Key& IssuerKey() { return qt::PooledKey(qt::KeyType::kEcP256, 0); }

const Bytes& IssuerName() {
  static const Bytes name = qt::NameDer(qt::TestName("Quillon Test Attribute Authority"));
  return name;
}

// GeneralName directoryName [4] holding |name|.
void DirectoryName(qt::DerWriter* w, const Bytes& name) {
  w->Begin(tag::CtxCons(4));
  w->Raw(name);
  w->End();
}

// AttributeCertificateInfo with one part replaced by |variant|.
Bytes Acinfo(const std::string& variant) {
  qt::DerWriter w;
  w.Begin(tag::kSequence);
  w.Integer(variant == "version v1" ? 0 : 1);
  w.Begin(tag::kSequence);  // Holder: baseCertificateID [0] IssuerSerial
  w.Begin(tag::CtxCons(0));
  w.Begin(tag::kSequence);
  DirectoryName(&w, qt::NameDer(qt::TestName("Holder's CA")));
  w.End();
  w.Integer(77);
  w.End();
  w.End();
  if (variant == "v1Form") {  // GeneralNames: a URI, then the directory name
    w.Begin(tag::kSequence);
    w.Tlv(tag::Ctx(6), std::string_view("http://aa.example/"));
    DirectoryName(&w, IssuerName());
    w.End();
  } else {  // v2Form [0]: issuerName (maybe empty), or only baseCertificateID [0]
    const bool base = variant == "baseCertificateID only";
    w.Begin(tag::CtxCons(0));
    if (base) w.Begin(tag::CtxCons(0));
    w.Begin(tag::kSequence);
    if (variant != "empty issuerName") DirectoryName(&w, IssuerName());
    w.End();
    if (base) {
      w.Integer(1);
      w.End();
    }
    w.End();
  }
  w.Raw(qt::SignatureAlgorithmDer(IssuerKey()));
  w.Integer(Bytes{0x00, 0xAC, 0x01});
  w.Begin(tag::kSequence);
  w.GeneralizedTime(1700000000);
  w.GeneralizedTime(1800000000);
  w.End();
  w.Begin(tag::kSequence);  // attributes: one role
  w.Begin(tag::kSequence);
  w.Oid("2.5.4.72");
  w.Begin(tag::kSet);
  w.Begin(tag::kSequence);
  w.Begin(tag::CtxCons(1));
  w.Tlv(tag::Ctx(6), std::string_view("urn:role:signer"));
  w.End();
  w.End();
  w.End();
  w.End();
  w.End();
  w.Begin(tag::kSequence);  // extensions: authority key identifier
  w.Begin(tag::kSequence);
  w.Oid("2.5.29.35");
  qt::DerWriter aki;
  aki.Begin(tag::kSequence);
  aki.Tlv(tag::Ctx(0), qt::KeyIdentifier(IssuerKey()));
  aki.End();
  w.OctetString(aki.Take());
  w.End();
  w.End();
  if (variant == "trailing element") w.Null();
  w.End();
  return w.Take();
}

bool Verifies(const AttributeCertificate& ac) {
  qt::EvpMdCtxPtr ctx(EVP_MD_CTX_new());
  const ByteView tbs = ac.acinfo(), sig = ac.signatureValue();
  return EVP_DigestVerifyInit(ctx.get(), nullptr, EVP_sha256(), nullptr, IssuerKey().get()) == 1 &&
         EVP_DigestVerify(ctx.get(), sig.data, sig.size, tbs.data, tbs.size) == 1;
}

TEST(AttributeCert, DecodesIssuerSerialValidityAndKeyIdentifier) {
  const struct { const char* variant; bool decodes; bool issuer_name; } kCases[] = {
      {"v2Form", true, true},
      {"v1Form", true, true},
      {"baseCertificateID only", true, false},
      {"version v1", false, false},
      {"empty issuerName", false, false},
      {"trailing element", false, false},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.variant);
    const Bytes acinfo = Acinfo(c.variant);
    const Bytes der = qt::SignTbs(acinfo, IssuerKey());
    AttributeCertificate ac;
    ASSERT_EQ(ac.decode(der.data(), der.size()), c.decodes);
    if (!c.decodes) continue;
    EXPECT_EQ(ac.version(), 2);
    EXPECT_EQ(ac.hasIssuerName(), c.issuer_name);
    EXPECT_EQ(ToBytes(ac.issuerBytes()), c.issuer_name ? IssuerName() : Bytes{});
    EXPECT_EQ(ac.serialNumber().toHex(), "AC01");
    EXPECT_EQ(ac.notBefore().seconds(), 1700000000);
    EXPECT_EQ(ac.notAfter().seconds(), 1800000000);
    AuthorityKeyIdentifier aki;
    ASSERT_TRUE(ac.authorityKeyIdentifier(&aki));
    EXPECT_EQ(aki.keyIdentifier(), qt::KeyIdentifier(IssuerKey()));
    EXPECT_TRUE(Verifies(ac));
    EXPECT_EQ(ac.encode(), der);
    const AttributeCertificate copy(ac);  // owns its bytes
    EXPECT_NE(copy.der().data, ac.der().data);
    EXPECT_EQ(copy.issuer(), ac.issuer());
  }
}

// An acinfo with its length in four octets is signed as written: the signed
// bytes stay as received, the encoding is DER. Every cut of it fails.
TEST(AttributeCert, BerKeepsTheSignedBytesAsReceived) {
  const Bytes acinfo = Acinfo("v2Form"), ber_acinfo = qt::LongFormLength(acinfo);
  const Bytes ber = qt::SignTbs(ber_acinfo, IssuerKey());

  AttributeCertificate ac;
  ASSERT_TRUE(ac.decode(ber.data(), ber.size()));
  EXPECT_FALSE(ac.isStrictDER());
  EXPECT_EQ(ToBytes(ac.acinfo()), ber_acinfo);
  EXPECT_TRUE(Verifies(ac));
  // The encoding is the same certificate with the acinfo length minimal.
  const Bytes der = ac.encode();
  AttributeCertificate again;
  ASSERT_TRUE(again.decode(der.data(), der.size()));
  EXPECT_TRUE(again.isStrictDER());
  EXPECT_EQ(ToBytes(again.acinfo()), acinfo);
  for (size_t cut = 0; cut < ber.size(); ++cut) EXPECT_FALSE(ac.decode(ber.data(), cut)) << cut;
}

}  // namespace
