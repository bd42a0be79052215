// Proves the test-support PKI factory right, with OpenSSL as the judge.
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ocsp.h>
#include <openssl/x509v3.h>

#include <chrono>
#include <filesystem>

#include "support/pki_factory.h"

namespace quillon::testing {
namespace {

time_t ToTime(const ASN1_TIME* t) {
  struct tm tm {};
  EXPECT_EQ(1, ASN1_TIME_to_tm(t, &tm));
  return timegm(&tm);
}

std::vector<uint8_t> Content(const ASN1_STRING* s) {
  return {ASN1_STRING_get0_data(s), ASN1_STRING_get0_data(s) + ASN1_STRING_length(s)};
}

std::string Utf8(const ASN1_STRING* s) {
  unsigned char* out = nullptr;
  int n = ASN1_STRING_to_UTF8(&out, s);
  std::string r(reinterpret_cast<char*>(out), static_cast<size_t>(n > 0 ? n : 0));
  OPENSSL_free(out);
  return r;
}

std::string Uri(const GENERAL_NAME* gn) {
  EXPECT_EQ(GEN_URI, gn->type);
  return gn->type == GEN_URI ? Utf8(gn->d.uniformResourceIdentifier) : "";
}

X509StorePtr StoreWith(const X509* root) {
  X509StorePtr st(X509_STORE_new());
  X509_STORE_add_cert(st.get(), const_cast<X509*>(root));
  return st;
}

// ---------------------------------------------------------------------------

class PkiFactoryKeys : public ::testing::TestWithParam<KeyType> {};

TEST_P(PkiFactoryKeys, ChainVerifiesOnlyWithTheIssuerKey) {
  Pki pki = MakePki(GetParam());
  EXPECT_EQ(1, X509_verify(pki.root.get(), pki.rootKey.get()));
  EXPECT_EQ(1, X509_verify(pki.intermediate.get(), pki.rootKey.get()));
  EXPECT_EQ(1, X509_verify(pki.leaf.get(), pki.intermediateKey.get()));
  EXPECT_NE(1, X509_verify(pki.leaf.get(), pki.rootKey.get()));

  X509StorePtr st = StoreWith(pki.root.get());
  STACK_OF(X509)* untrusted = sk_X509_new_null();
  sk_X509_push(untrusted, pki.intermediate.get());
  X509_STORE_CTX* ctx = X509_STORE_CTX_new();
  ASSERT_EQ(1, X509_STORE_CTX_init(ctx, st.get(), pki.leaf.get(), untrusted));
  EXPECT_EQ(1, X509_verify_cert(ctx)) << X509_verify_cert_error_string(X509_STORE_CTX_get_error(ctx));
  X509_STORE_CTX_free(ctx);
  sk_X509_free(untrusted);

  CertSpec bad = LeafSpec(TestName("bad"), pki.leafKey, pki.intermediate.get(), pki.intermediateKey);
  bad.signWithKey = MakeKey(GetParam());
  X509Ptr badCert = MakeCert(bad);
  EXPECT_NE(1, X509_verify(badCert.get(), pki.intermediateKey.get()));

  auto crlDer = MakeCrlDer({.issuerCert = pki.intermediate.get(), .signingKey = pki.intermediateKey});
  X509CrlPtr crl = ParseCrl(crlDer);
  EXPECT_EQ(1, X509_CRL_verify(crl.get(), pki.intermediateKey.get()));
  EXPECT_EQ(0, X509_NAME_cmp(X509_CRL_get_issuer(crl.get()), X509_get_subject_name(pki.intermediate.get())));
}

INSTANTIATE_TEST_SUITE_P(PkiFactory, PkiFactoryKeys,
                         ::testing::Values(KeyType::kRsa2048, KeyType::kEcP256, KeyType::kEcP384,
                                           KeyType::kEcP521, KeyType::kBrainpoolP256r1),
                         [](const auto& info) { return std::string(KeyTypeName(info.param)); });

TEST(PkiFactoryCert, NamesKeepStringTypesAndMultiValuedRdns) {
  Key key = MakeKey(KeyType::kEcP256);
  CertSpec s = RootCaSpec({{{"C", "IT"}},
                           {{"O", "Società Prova", StrType::kUtf8}},
                           {{"OU", "Ünit", StrType::kBmp}, {"serialNumber", "42"}},
                           {{"L", "Roma", StrType::kT61}},
                           {{"emailAddress", "ca@example.org"}},
                           {{"2.5.4.3", "Root", StrType::kPrintable}}},
                          key);
  X509Ptr c = MakeCert(s);
  X509_NAME* n = X509_get_subject_name(c.get());
  ASSERT_EQ(7, X509_NAME_entry_count(n));
  EXPECT_EQ(5, X509_NAME_get_index_by_NID(n, NID_pkcs9_emailAddress, -1));
  // The two values of the third RDN share one set.
  EXPECT_EQ(X509_NAME_ENTRY_set(X509_NAME_get_entry(n, 2)), X509_NAME_ENTRY_set(X509_NAME_get_entry(n, 3)));
  EXPECT_NE(X509_NAME_ENTRY_set(X509_NAME_get_entry(n, 3)), X509_NAME_ENTRY_set(X509_NAME_get_entry(n, 4)));
  auto valueOf = [&](int nid) {
    return X509_NAME_ENTRY_get_data(X509_NAME_get_entry(n, X509_NAME_get_index_by_NID(n, nid, -1)));
  };
  EXPECT_EQ(V_ASN1_PRINTABLESTRING, ASN1_STRING_type(valueOf(NID_countryName)));
  EXPECT_EQ(V_ASN1_UTF8STRING, ASN1_STRING_type(valueOf(NID_organizationName)));
  EXPECT_EQ("Società Prova", Utf8(valueOf(NID_organizationName)));
  EXPECT_EQ(V_ASN1_BMPSTRING, ASN1_STRING_type(valueOf(NID_organizationalUnitName)));
  EXPECT_EQ("Ünit", Utf8(valueOf(NID_organizationalUnitName)));
  EXPECT_EQ(V_ASN1_T61STRING, ASN1_STRING_type(valueOf(NID_localityName)));
  EXPECT_EQ(V_ASN1_IA5STRING, ASN1_STRING_type(valueOf(NID_pkcs9_emailAddress)));
  EXPECT_EQ(V_ASN1_PRINTABLESTRING, ASN1_STRING_type(valueOf(NID_commonName)));
  EXPECT_EQ(0, X509_NAME_cmp(n, X509_get_issuer_name(c.get())));
}

TEST(PkiFactoryCert, SerialsVersionsAndTimes) {
  Key key = MakeKey(KeyType::kEcP256);
  std::vector<uint8_t> twenty(20, 0xAB);
  twenty[0] = 0x00;  // sign byte: 19 magnitude bytes with the top bit set
  for (const Serial& serial : {Serial(5), Serial::FromBytes(twenty), Serial(-2), Serial::FromHex("FF01")}) {
    CertSpec s = LeafSpec(TestName("serial"), key, nullptr, key);
    s.serial = serial;
    X509Ptr c = MakeCert(s);
    EXPECT_EQ(serial, SerialOf(c.get())) << Hex(serial.bytes);
  }
  BIGNUM* bn = ASN1_INTEGER_to_BN(X509_get0_serialNumber(MakeCert([&] {
    CertSpec s = LeafSpec(TestName("neg"), key, nullptr, key);
    s.serial = Serial(-2);
    return s;
  }()).get()), nullptr);
  EXPECT_TRUE(BN_is_negative(bn));
  BN_free(bn);

  CertSpec s = LeafSpec(TestName("times"), key, nullptr, key);
  s.notBefore = UtcTime(2049, 12, 31, 23, 59, 59);
  s.notAfter = UtcTime(2050, 1, 1);
  X509Ptr c = MakeCert(s);
  EXPECT_EQ(V_ASN1_UTCTIME, ASN1_STRING_type(X509_get0_notBefore(c.get())));
  EXPECT_EQ(V_ASN1_GENERALIZEDTIME, ASN1_STRING_type(X509_get0_notAfter(c.get())));
  EXPECT_EQ(s.notBefore, ToTime(X509_get0_notBefore(c.get())));
  EXPECT_EQ(s.notAfter, ToTime(X509_get0_notAfter(c.get())));
  EXPECT_EQ(2, X509_get_version(c.get()));
  s.forceGeneralizedTime = true;
  s.version = 1;
  c = MakeCert(s);
  EXPECT_EQ(V_ASN1_GENERALIZEDTIME, ASN1_STRING_type(X509_get0_notBefore(c.get())));
  EXPECT_EQ(0, X509_get_version(c.get()));
  EXPECT_EQ(0, X509_get_ext_count(c.get()));
}

TEST(PkiFactoryCert, ExtensionsReadBackAsRequested) {
  Pki pki = MakePki(KeyType::kEcP256);
  Key key = MakeKey(KeyType::kEcP256);
  CertSpec s = LeafSpec(TestName("ext"), key, pki.intermediate.get(), pki.intermediateKey);
  s.basicConstraints = BasicConstraintsSpec{.ca = true, .pathLen = 3, .critical = false};
  s.keyUsage = KeyUsageSpec{.bits = {kKuDigitalSignature, kKuCrlSign, kKuDecipherOnly}, .critical = true};
  s.extKeyUsage = {kOidOcspSigning, "clientAuth"};
  s.subjectKeyId = {.mode = KeyIdMode::kGiven, .keyId = {1, 2, 3}};
  s.authorityKeyId.withIssuerAndSerial = true;
  s.crlDistributionPoints = {
      {.uris = {"http://a.example/x.crl", "ldap://ldap.example/cn=CA?certificateRevocationList"}},
      {.directoryNames = {TestName("Dir Point")}},
  };
  s.ocspUris = {"http://ocsp.example"};
  s.caIssuersUris = {"http://ca.example/ca.cer"};
  s.ocspNoCheck = true;
  s.extraExtensions = {{.oid = "1.2.3.4.5", .critical = true, .value = {0x05, 0x00}}};
  X509Ptr c = MakeCert(s);
  EXPECT_EQ(1, X509_verify(c.get(), pki.intermediateKey.get()));

  EXPECT_EQ(uint32_t{KU_DIGITAL_SIGNATURE | KU_CRL_SIGN | KU_DECIPHER_ONLY}, X509_get_key_usage(c.get()));
  int crit = -1;
  auto* bc = static_cast<BASIC_CONSTRAINTS*>(X509_get_ext_d2i(c.get(), NID_basic_constraints, &crit, nullptr));
  ASSERT_NE(nullptr, bc);
  EXPECT_TRUE(bc->ca);
  EXPECT_EQ(3, ASN1_INTEGER_get(bc->pathlen));
  EXPECT_EQ(0, crit);
  BASIC_CONSTRAINTS_free(bc);
  ASN1_BIT_STRING_free(static_cast<ASN1_BIT_STRING*>(X509_get_ext_d2i(c.get(), NID_key_usage, &crit, nullptr)));
  EXPECT_EQ(1, crit);
  EXPECT_EQ(uint32_t{XKU_OCSP_SIGN | XKU_SSL_CLIENT}, X509_get_extended_key_usage(c.get()));

  EXPECT_EQ((std::vector<uint8_t>{1, 2, 3}), Content(X509_get0_subject_key_id(c.get())));
  auto* aki = static_cast<AUTHORITY_KEYID*>(X509_get_ext_d2i(c.get(), NID_authority_key_identifier, nullptr, nullptr));
  ASSERT_NE(nullptr, aki);
  EXPECT_EQ(Content(X509_get0_subject_key_id(pki.intermediate.get())), Content(aki->keyid));
  ASSERT_EQ(1, sk_GENERAL_NAME_num(aki->issuer));
  EXPECT_EQ(0, X509_NAME_cmp(sk_GENERAL_NAME_value(aki->issuer, 0)->d.directoryName,
                             X509_get_issuer_name(pki.intermediate.get())));
  EXPECT_EQ(0, ASN1_INTEGER_cmp(aki->serial, X509_get0_serialNumber(pki.intermediate.get())));
  AUTHORITY_KEYID_free(aki);

  auto* dps = static_cast<CRL_DIST_POINTS*>(X509_get_ext_d2i(c.get(), NID_crl_distribution_points, nullptr, nullptr));
  ASSERT_EQ(2, sk_DIST_POINT_num(dps));
  GENERAL_NAMES* full0 = sk_DIST_POINT_value(dps, 0)->distpoint->name.fullname;
  ASSERT_EQ(2, sk_GENERAL_NAME_num(full0));
  EXPECT_EQ("http://a.example/x.crl", Uri(sk_GENERAL_NAME_value(full0, 0)));
  EXPECT_EQ("ldap://ldap.example/cn=CA?certificateRevocationList", Uri(sk_GENERAL_NAME_value(full0, 1)));
  GENERAL_NAME* dir = sk_GENERAL_NAME_value(sk_DIST_POINT_value(dps, 1)->distpoint->name.fullname, 0);
  ASSERT_EQ(GEN_DIRNAME, dir->type);
  EXPECT_EQ(0, X509_NAME_cmp(dir->d.directoryName, MakeX509Name(TestName("Dir Point")).get()));
  CRL_DIST_POINTS_free(dps);

  auto* aia = static_cast<AUTHORITY_INFO_ACCESS*>(X509_get_ext_d2i(c.get(), NID_info_access, nullptr, nullptr));
  ASSERT_EQ(2, sk_ACCESS_DESCRIPTION_num(aia));
  EXPECT_EQ(NID_ad_OCSP, OBJ_obj2nid(sk_ACCESS_DESCRIPTION_value(aia, 0)->method));
  EXPECT_EQ("http://ocsp.example", Uri(sk_ACCESS_DESCRIPTION_value(aia, 0)->location));
  EXPECT_EQ(NID_ad_ca_issuers, OBJ_obj2nid(sk_ACCESS_DESCRIPTION_value(aia, 1)->method));
  AUTHORITY_INFO_ACCESS_free(aia);

  EXPECT_GE(X509_get_ext_by_NID(c.get(), NID_id_pkix_OCSP_noCheck, -1), 0);
  ASN1_OBJECT* raw = OBJ_txt2obj("1.2.3.4.5", 1);
  X509_EXTENSION* ext = X509_get_ext(c.get(), X509_get_ext_by_OBJ(c.get(), raw, -1));
  ASN1_OBJECT_free(raw);
  ASSERT_NE(nullptr, ext);
  EXPECT_EQ(1, X509_EXTENSION_get_critical(ext));
  EXPECT_EQ((std::vector<uint8_t>{0x05, 0x00}), Content(X509_EXTENSION_get_data(ext)));
}

TEST(PkiFactoryCert, DigestsAndRsaPss) {
  const Key& rsa = PooledKey(KeyType::kRsa2048, 0);
  struct { Digest d; bool pss; int nid; } cases[] = {
      {Digest::kSha1, false, NID_sha1WithRSAEncryption},
      {Digest::kSha384, false, NID_sha384WithRSAEncryption},
      {Digest::kSha512, false, NID_sha512WithRSAEncryption},
      {Digest::kSha256, true, NID_rsassaPss},
  };
  for (const auto& tc : cases) {
    CertSpec s = RootCaSpec(TestName("digest"), rsa);
    s.digest = tc.d;
    s.rsaPss = tc.pss;
    X509Ptr c = MakeCert(s);
    EXPECT_EQ(tc.nid, X509_get_signature_nid(c.get()));
    EXPECT_EQ(1, X509_verify(c.get(), rsa.get()));
  }
  Key ec = MakeKey(KeyType::kEcP384);
  CertSpec s = RootCaSpec(TestName("ecdsa"), ec);
  s.digest = Digest::kSha384;
  EXPECT_EQ(NID_ecdsa_with_SHA384, X509_get_signature_nid(MakeCert(s).get()));
}

TEST(PkiFactoryCrl, EntriesExtensionsAndSignature) {
  Pki pki = MakePki(KeyType::kEcP256);
  const time_t t0 = UtcTime(2024, 5, 1, 12);
  CrlSpec s{.issuerCert = pki.intermediate.get(), .signingKey = pki.intermediateKey};
  s.thisUpdate = t0;
  s.nextUpdate = t0 + 7 * kDay;
  s.crlNumber = Serial::FromHex("0102030405060708090A");
  s.issuingDistributionPoint = IdpSpec{.uris = {"http://127.0.0.1/crl/intermediate.crl"},
                                       .onlyContainsUserCerts = true,
                                       .onlySomeReasons = {kReasonKeyCompromise, kReasonCaCompromise},
                                       .indirectCrl = true};
  s.expiredCertsOnCrl = UtcTime(2020, 1, 1);
  s.revoked = {
      {.serial = 7, .revocationDate = t0 - kDay},
      {.serial = Serial::FromHex("00FF"), .revocationDate = t0 - 2 * kDay, .reason = kReasonCertificateHold},
      {.serial = 9, .revocationDate = t0 - 3 * kDay, .reason = kReasonRemoveFromCrl,
       .invalidityDate = t0 - 10 * kDay},
  };
  X509CrlPtr crl = MakeCrl(s);
  EXPECT_EQ(1, X509_CRL_get_version(crl.get()));
  EXPECT_EQ(1, X509_CRL_verify(crl.get(), pki.intermediateKey.get()));
  EXPECT_NE(1, X509_CRL_verify(crl.get(), pki.rootKey.get()));
  EXPECT_EQ(t0, ToTime(X509_CRL_get0_lastUpdate(crl.get())));
  EXPECT_EQ(t0 + 7 * kDay, ToTime(X509_CRL_get0_nextUpdate(crl.get())));

  STACK_OF(X509_REVOKED)* rev = X509_CRL_get_REVOKED(crl.get());
  ASSERT_EQ(3, sk_X509_REVOKED_num(rev));
  const int reasons[] = {-1, kReasonCertificateHold, kReasonRemoveFromCrl};
  for (int i = 0; i < 3; ++i) {
    X509_REVOKED* r = sk_X509_REVOKED_value(rev, i);
    EXPECT_EQ(s.revoked[i].revocationDate, ToTime(X509_REVOKED_get0_revocationDate(r)));
    const long serials[] = {7, 255, 9};
    EXPECT_EQ(serials[i], ASN1_INTEGER_get(X509_REVOKED_get0_serialNumber(r)));
    auto* reason = static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(r, NID_crl_reason, nullptr, nullptr));
    EXPECT_EQ(reasons[i], reason ? ASN1_ENUMERATED_get(reason) : -1);
    ASN1_ENUMERATED_free(reason);
  }
  auto* inv = static_cast<ASN1_GENERALIZEDTIME*>(
      X509_REVOKED_get_ext_d2i(sk_X509_REVOKED_value(rev, 2), NID_invalidity_date, nullptr, nullptr));
  ASSERT_NE(nullptr, inv);
  EXPECT_EQ(t0 - 10 * kDay, ToTime(inv));
  ASN1_GENERALIZEDTIME_free(inv);

  auto* num = static_cast<ASN1_INTEGER*>(X509_CRL_get_ext_d2i(crl.get(), NID_crl_number, nullptr, nullptr));
  EXPECT_EQ(s.crlNumber->bytes, Content(num));
  ASN1_INTEGER_free(num);
  auto* aki = static_cast<AUTHORITY_KEYID*>(X509_CRL_get_ext_d2i(crl.get(), NID_authority_key_identifier, nullptr, nullptr));
  EXPECT_EQ(Content(X509_get0_subject_key_id(pki.intermediate.get())), Content(aki->keyid));
  AUTHORITY_KEYID_free(aki);
  int crit = -1;
  auto* idp = static_cast<ISSUING_DIST_POINT*>(X509_CRL_get_ext_d2i(crl.get(), NID_issuing_distribution_point, &crit, nullptr));
  ASSERT_NE(nullptr, idp);
  EXPECT_EQ(1, crit);
  EXPECT_EQ("http://127.0.0.1/crl/intermediate.crl", Uri(sk_GENERAL_NAME_value(idp->distpoint->name.fullname, 0)));
  EXPECT_TRUE(idp->onlyuser);
  EXPECT_FALSE(idp->onlyCA);
  EXPECT_TRUE(idp->indirectCRL);
  EXPECT_TRUE(ASN1_BIT_STRING_get_bit(idp->onlysomereasons, kReasonKeyCompromise));
  EXPECT_TRUE(ASN1_BIT_STRING_get_bit(idp->onlysomereasons, kReasonCaCompromise));
  EXPECT_FALSE(ASN1_BIT_STRING_get_bit(idp->onlysomereasons, kReasonSuperseded));
  ISSUING_DIST_POINT_free(idp);
  ASN1_OBJECT* ecOid = OBJ_txt2obj(kOidExpiredCertsOnCrl, 1);
  X509_EXTENSION* ec = X509_CRL_get_ext(crl.get(), X509_CRL_get_ext_by_OBJ(crl.get(), ecOid, -1));
  ASN1_OBJECT_free(ecOid);
  ASSERT_NE(nullptr, ec);
  const unsigned char* p = ASN1_STRING_get0_data(X509_EXTENSION_get_data(ec));
  ASN1_GENERALIZEDTIME* ecTime = d2i_ASN1_GENERALIZEDTIME(nullptr, &p, ASN1_STRING_length(X509_EXTENSION_get_data(ec)));
  ASSERT_NE(nullptr, ecTime);
  EXPECT_EQ(UtcTime(2020, 1, 1), ToTime(ecTime));
  ASN1_GENERALIZEDTIME_free(ecTime);

  CrlSpec wrong{.issuer = TestName("v1"), .signingKey = pki.rootKey, .signWithKey = pki.leafKey, .version = 1};
  wrong.nextUpdate.reset();
  wrong.revoked = {{.serial = 1, .reason = kReasonKeyCompromise}};
  X509CrlPtr v1 = MakeCrl(wrong);
  EXPECT_EQ(0, X509_CRL_get_version(v1.get()));
  EXPECT_EQ(0, X509_CRL_get_ext_count(v1.get()));
  EXPECT_EQ(nullptr, X509_CRL_get0_nextUpdate(v1.get()));
  EXPECT_EQ(0, X509_REVOKED_get_ext_count(sk_X509_REVOKED_value(X509_CRL_get_REVOKED(v1.get()), 0)));
  EXPECT_NE(1, X509_CRL_verify(v1.get(), pki.rootKey.get()));
  EXPECT_EQ(1, X509_CRL_verify(v1.get(), pki.leafKey.get()));
}

TEST(PkiFactoryCrl, LargeCrlFastPathMatchesItsSerials) {
  const Key& key = PooledKey(KeyType::kRsa2048, 0);
  const NameSpec issuer = TestName("Large CRL CA");
  const size_t n = 5000;
  const uint64_t seed = 77;
  X509CrlPtr crl = ParseCrl(MakeLargeCrl(key, issuer, n, seed));
  EXPECT_EQ(1, X509_CRL_verify(crl.get(), key.get()));
  EXPECT_EQ(0, X509_NAME_cmp(X509_CRL_get_issuer(crl.get()), MakeX509Name(issuer).get()));
  STACK_OF(X509_REVOKED)* rev = X509_CRL_get_REVOKED(crl.get());
  ASSERT_EQ(static_cast<int>(n), sk_X509_REVOKED_num(rev));
  size_t withReason = 0;
  for (size_t i = 0; i < n; ++i) {
    X509_REVOKED* r = sk_X509_REVOKED_value(rev, static_cast<int>(i));
    CrlEntryInfo e = LargeCrlEntry(i, seed);
    ASSERT_EQ(e.serial.bytes, Content(X509_REVOKED_get0_serialNumber(r))) << i;
    ASSERT_EQ(e.revocationDate, ToTime(X509_REVOKED_get0_revocationDate(r)));
    auto* reason = static_cast<ASN1_ENUMERATED*>(X509_REVOKED_get_ext_d2i(r, NID_crl_reason, nullptr, nullptr));
    ASSERT_EQ(e.reason.value_or(-1), reason ? ASN1_ENUMERATED_get(reason) : -1);
    withReason += reason != nullptr;
    ASN1_ENUMERATED_free(reason);
    ASSERT_EQ(e.invalidityDate.has_value(), X509_REVOKED_get_ext_by_NID(r, NID_invalidity_date, -1) >= 0);
  }
  EXPECT_EQ((n + 2) / 3, withReason);
  EXPECT_TRUE(LargeCrlEntry(1, seed).invalidityDate.has_value());
  // Look-ups through OpenSSL's sorted index: present and absent serials.
  for (size_t k : {size_t{0}, size_t{1234}, n - 1}) {
    X509_REVOKED* found = nullptr;
    auto serial = [](const Serial& s) {
      std::vector<uint8_t> tlv = {0x02, static_cast<uint8_t>(s.bytes.size())};
      tlv.insert(tlv.end(), s.bytes.begin(), s.bytes.end());
      const unsigned char* p = tlv.data();
      return d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(tlv.size()));
    };
    ASN1_INTEGER* present = serial(LargeCrlSerial(k, seed));
    ASN1_INTEGER* absent = serial(LargeCrlAbsentSerial(k, seed));
    EXPECT_EQ(1, X509_CRL_get0_by_serial(crl.get(), &found, present));
    EXPECT_EQ(0, X509_CRL_get0_by_serial(crl.get(), &found, absent));
    ASN1_INTEGER_free(present);
    ASN1_INTEGER_free(absent);
  }
}

// Run by hand: the million-entry case belongs to the benchmarks.
TEST(PkiFactoryCrl, DISABLED_MillionEntriesInAFewSeconds) {
  const Key& key = PooledKey(KeyType::kRsa2048, 0);
  auto start = std::chrono::steady_clock::now();
  auto der = MakeLargeCrl(key, TestName("Large CRL CA"), 1000000, 1);
  double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  std::printf("1M-entry CRL: %zu bytes in %.2f s\n", der.size(), secs);
  EXPECT_LT(secs, 5.0);
}

// ---------------------------------------------------------------------------

class PkiFactoryOcsp : public ::testing::Test {
 protected:
  void SetUp() override { pki_ = MakePki(KeyType::kEcP256); }

  // OCSP_basic_verify with the root trusted and the intermediate supplied.
  int Verify(const OCSP_RESPONSE* resp, unsigned long flags = 0) {
    OCSP_BASICRESP* bs = OCSP_response_get1_basic(const_cast<OCSP_RESPONSE*>(resp));
    EXPECT_NE(nullptr, bs);
    X509StorePtr st = StoreWith(pki_.root.get());
    STACK_OF(X509)* certs = sk_X509_new_null();
    sk_X509_push(certs, pki_.intermediate.get());
    int rc = OCSP_basic_verify(bs, certs, st.get(), flags);
    sk_X509_free(certs);
    OCSP_BASICRESP_free(bs);
    ERR_clear_error();
    return rc;
  }

  OcspSpec CaSigned() {
    return OcspSpec{.signerCert = pki_.intermediate.get(), .signerKey = pki_.intermediateKey};
  }

  Pki pki_;
};

TEST_F(PkiFactoryOcsp, StatusesDatesAndProducedAtReadBack) {
  const time_t produced = UtcTime(2030, 3, 4, 5, 6, 7);
  OcspSpec s = CaSigned();
  s.producedAt = produced;
  s.nonce = std::vector<uint8_t>{1, 2, 3, 4};
  s.responses = {
      {.issuerCert = pki_.intermediate.get(), .serial = 10, .status = CertStatus::kGood},
      {.issuerCert = pki_.intermediate.get(), .serial = 11, .status = CertStatus::kRevoked,
       .revocationTime = UtcTime(2024, 1, 2), .reason = kReasonCertificateHold,
       .thisUpdate = UtcTime(2024, 2, 1), .nextUpdate = std::nullopt},
      {.issuerCert = pki_.intermediate.get(), .serial = 12, .certIdHash = Digest::kSha256,
       .status = CertStatus::kUnknown},
  };
  OcspResponsePtr resp = ParseOcsp(MakeOcspDer(s));
  ASSERT_EQ(OCSP_RESPONSE_STATUS_SUCCESSFUL, OCSP_response_status(resp.get()));
  EXPECT_EQ(1, Verify(resp.get()));
  OcspBasicPtr bs(OCSP_response_get1_basic(resp.get()));
  EXPECT_EQ(produced, ToTime(OCSP_resp_get0_produced_at(bs.get())));
  EXPECT_EQ(3, OCSP_resp_count(bs.get()));
  EXPECT_GE(OCSP_BASICRESP_get_ext_by_NID(bs.get(), NID_id_pkix_OCSP_Nonce, -1), 0);

  const int expected[] = {V_OCSP_CERTSTATUS_GOOD, V_OCSP_CERTSTATUS_REVOKED, V_OCSP_CERTSTATUS_UNKNOWN};
  for (int i = 0; i < 3; ++i) {
    ASN1_INTEGER* serial = ASN1_INTEGER_new();
    ASN1_INTEGER_set(serial, 10 + i);
    OCSP_CERTID* id = OCSP_cert_id_new(DigestMd(s.responses[i].certIdHash),
                                       X509_get_subject_name(pki_.intermediate.get()),
                                       X509_get0_pubkey_bitstr(pki_.intermediate.get()), serial);
    int status = -1, reason = -1;
    ASN1_GENERALIZEDTIME *rev = nullptr, *thisUpd = nullptr, *nextUpd = nullptr;
    ASSERT_EQ(1, OCSP_resp_find_status(bs.get(), id, &status, &reason, &rev, &thisUpd, &nextUpd)) << i;
    EXPECT_EQ(expected[i], status);
    EXPECT_EQ(s.responses[i].thisUpdate, ToTime(thisUpd));
    if (i == 1) {
      EXPECT_EQ(kReasonCertificateHold, reason);
      EXPECT_EQ(UtcTime(2024, 1, 2), ToTime(rev));
      EXPECT_EQ(nullptr, nextUpd);
    } else {
      EXPECT_EQ(*s.responses[i].nextUpdate, ToTime(nextUpd));
    }
    OCSP_CERTID_free(id);
    ASN1_INTEGER_free(serial);
  }
}

TEST_F(PkiFactoryOcsp, DelegatedResponderNeedsOcspSigning) {
  Key responderKey = MakeKey(KeyType::kEcP256);
  for (bool eku : {true, false}) {
    X509Ptr responder = MakeOcspResponderCert(pki_.intermediate.get(), pki_.intermediateKey, responderKey, eku);
    OcspSpec s{.signerCert = responder.get(), .signerKey = responderKey,
               .responderId = ResponderIdType::kByKey, .certs = {responder.get()}};
    s.responses = {{.issuerCert = pki_.intermediate.get(), .serial = 5}};
    OcspResponsePtr resp = MakeOcsp(s);
    EXPECT_EQ(eku ? 1 : 0, Verify(resp.get()) > 0) << "eku=" << eku;
    OcspBasicPtr bs(OCSP_response_get1_basic(resp.get()));
    const ASN1_OCTET_STRING* keyHash = nullptr;
    const X509_NAME* name = nullptr;
    ASSERT_EQ(1, OCSP_resp_get0_id(bs.get(), &keyHash, &name));
    ASSERT_NE(nullptr, keyHash);
    EXPECT_EQ(KeyIdentifier(responderKey), Content(keyHash));
    EXPECT_EQ(1, sk_X509_num(OCSP_resp_get0_certs(bs.get())));
  }
}

TEST_F(PkiFactoryOcsp, UnrelatedKeyFailsAndOtherStatusesHaveNoBody) {
  OcspSpec s = CaSigned();
  s.responses = {{.issuerCert = pki_.intermediate.get(), .serial = 5}};
  s.signWithKey = MakeKey(KeyType::kEcP256);
  OcspResponsePtr bad = MakeOcsp(s);
  EXPECT_LE(Verify(bad.get(), OCSP_NOVERIFY), 0);
  s.signWithKey = Key();
  EXPECT_EQ(1, Verify(MakeOcsp(s).get(), OCSP_NOVERIFY));

  for (auto st : {OcspResponseStatus::kMalformedRequest, OcspResponseStatus::kInternalError,
                  OcspResponseStatus::kTryLater, OcspResponseStatus::kSigRequired,
                  OcspResponseStatus::kUnauthorized}) {
    OcspResponsePtr r = ParseOcsp(MakeOcspDer({.responseStatus = st}));
    EXPECT_EQ(static_cast<int>(st), OCSP_response_status(r.get()));
    EXPECT_EQ(nullptr, OCSP_response_get1_basic(r.get()));
    ERR_clear_error();
  }
}

TEST(PkiFactoryFiles, TempDirReadFileAndTestData) {
  std::string path;
  {
    TempDir dir;
    path = dir.path();
    ASSERT_TRUE(std::filesystem::is_directory(path));
    std::filesystem::create_directories(dir.File("a/b"));
    WriteFile(dir.File("a/b/c.bin"), std::vector<uint8_t>{0, 1, 255});
    EXPECT_EQ((std::vector<uint8_t>{0, 1, 255}), ReadFile(dir.File("a/b/c.bin")));
  }
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_THROW(ReadFile(path + "/missing"), std::runtime_error);
  EXPECT_FALSE(ReadFile(TestDataPath("README.md")).empty());
}

}  // namespace
}  // namespace quillon::testing
