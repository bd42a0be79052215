// OCSP responses: the real ones decode to what their facts say, the BoringSSL
// cases decode as far as their faults allow and rebuild their requests, and
// responses made here cover what those lack.
#include "quillon32/ocsp_response.h"

#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "pki/ocsp_request.h"
#include "quillon32/buffer.h"
#include "support/der_writer.h"
#include "support/facts_csv.h"
#include "support/pki_factory.h"

namespace {

namespace qt = quillon::testing;
namespace tag = quillon::testing::der;
using Bytes = std::vector<uint8_t>;

Bytes ToBytes(ByteView v) { return Bytes(v.data, v.data + v.size); }

std::string LowerHex(const Bytes& bytes) {
  std::string out = qt::Hex(bytes);
  std::transform(out.begin(), out.end(), out.begin(), [](char c) { return std::tolower(c); });
  return out;
}

Bytes Sha1(const Bytes& data) {
  Bytes out(SHA_DIGEST_LENGTH);
  SHA1(data.data(), data.size(), out.data());
  return out;
}

bool DecodeBasic(const Bytes& der, OCSPResponse* r, BasicOCSPResponse* b) {
  return r->decode(der.data(), der.size()) && r->basicResponse(b);
}

// Every real response decodes to what its facts row says, re-encodes byte
// for byte and wraps back into its own envelope. The OpenSSL
// variants are faulty only in values (signatures, responder IDs, CertID
// hashes), so all of them decode; verification is where they fail.
TEST(OcspResponse, RealResponsesMatchTheirFacts) {
  const std::map<std::string, std::string> kSigOids = {
      {"sha256WithRSAEncryption", "1.2.840.113549.1.1.11"},
      {"sha1WithRSAEncryption", "1.2.840.113549.1.1.5"}};
  int checked = 0;
  for (const auto& row : qt::ReadFactsCsv("real-ocsp/ocsp-facts.csv")) {
    if (row.at("kind") != "response") continue;
    SCOPED_TRACE(row.at("file"));
    const Bytes der = qt::ReadFile(qt::TestDataPath("real-ocsp/" + row.at("file")));
    OCSPResponse r;
    BasicOCSPResponse b;
    ASSERT_TRUE(DecodeBasic(der, &r, &b));
    EXPECT_EQ(r.responseStatus(), OCSPResponse::kSuccessful);
    EXPECT_EQ(r.encode(), der);
    EXPECT_EQ(b.encode(), ToBytes(r.response()));
    EXPECT_EQ(b.producedAt().seconds(), qt::FactsTime(row.at("produced_at")));
    EXPECT_EQ(b.signatureAlgorithmOID(), kSigOids.at(row.at("sig_alg")));
    const std::string responder = row.at("responder_id");  // "byKey: <hex>" or "byName: <name>"
    if (responder.starts_with("byKey: ")) {
      EXPECT_EQ(b.responderIDType(), BasicOCSPResponse::kByKey);
      EXPECT_EQ(LowerHex(ToBytes(b.responderKeyHash())), responder.substr(7));
    } else {
      EXPECT_EQ(b.responderIDType(), BasicOCSPResponse::kByName);
      EXPECT_EQ(qt::NameAttributes(b.responderName()), qt::FactsName(responder.substr(8)));
    }
    const auto subjects = qt::SplitFacts(row.at("included_certs"), " | ");
    ASSERT_EQ(b.certs().size(), subjects.size());
    for (size_t i = 0; i < subjects.size(); ++i) {
      EXPECT_EQ(qt::NameAttributes(b.certs()[i].subject()), qt::FactsName(subjects[i]));
    }
    // sha1/serial S/nameHash H/keyHash H/GOOD or REVOKED at T reason=absent/
    // thisUpdate T[/nextUpdate T]
    const auto singles = qt::SplitFacts(row.at("singles"), " | ");
    ASSERT_EQ(b.responses().size(), singles.size());
    for (size_t i = 0; i < singles.size(); ++i) {
      const auto f = qt::SplitFacts(singles[i], "/");
      const OCSPSingleResponse& s = b.responses()[i];
      ASSERT_GE(f.size(), 6u);
      EXPECT_EQ(f[0] + " " + s.certID.hashAlgorithmOID, "sha1 1.3.14.3.2.26");
      EXPECT_EQ(s.certID.serialNumber.toHex(), qt::FactsSerial(f[1].substr(7)));
      EXPECT_EQ(LowerHex(s.certID.issuerNameHash), f[2].substr(9));
      EXPECT_EQ(LowerHex(s.certID.issuerKeyHash), f[3].substr(8));
      EXPECT_EQ(s.certStatus, f[4] == "GOOD" ? OCSPSingleResponse::kGood
                                             : OCSPSingleResponse::kRevoked);
      if (f[4] != "GOOD") {
        ASSERT_TRUE(f[4].starts_with("REVOKED at ") && f[4].ends_with(" reason=absent"));
        EXPECT_EQ(s.revocationTime.seconds(), qt::FactsTime(f[4].substr(11)));
        EXPECT_EQ(s.revocationReason, -1);
      }
      EXPECT_EQ(s.thisUpdate.seconds(), qt::FactsTime(f[5].substr(11)));
      ASSERT_EQ(s.hasNextUpdate, f.size() == 7);
      EXPECT_EQ(s.nextUpdate.seconds(),
                s.hasNextUpdate ? qt::FactsTime(f[6].substr(11)) : X500Time::kNoTime);
    }
    OCSPResponse wrapped;
    ASSERT_TRUE(wrapped.fromBasicResponse(b));
    EXPECT_EQ(wrapped.encode(), der);
    ++checked;
  }
  EXPECT_EQ(checked, 39);
}

// The BoringSSL cases: how far each decodes, and the request each carries,
// rebuilt from its issuer and certificate. Four are broken in their
// structure: invalid_response (a length past the end) and bad_status
// (status 17) in the envelope; bad_ocsp_type (another responseType) and
// invalid_response_data (ResponseData an OCTET STRING) inside it. The others
// are faulty only in values that later checks judge, and decode.
TEST(OcspResponse, BoringSslCasesDecodeAndRebuildTheirRequests) {
  const std::string dir = "real-ocsp/boringssl-ocsp-unittest/";
  int checked = 0;
  for (const auto& row : qt::ReadFactsCsv(dir + "expected-outcomes.csv")) {
    const std::string file = row.at("file"), expected = row.at("expected_response_status");
    SCOPED_TRACE(file);
    const Bytes text = qt::ReadFile(qt::TestDataPath(dir + file));
    const std::string pem(text.begin(), text.end());
    std::map<std::string, Buffer> blocks;
    std::string label;
    size_t at = 0;
    for (Buffer block; block.readPEMBlock(pem, &at, &label);) blocks[label] = block;
    ASSERT_EQ(blocks.size(), 4u);
    const Bytes& der = blocks["OCSP RESPONSE"].bytes();
    OCSPResponse r;
    BasicOCSPResponse b;
    EXPECT_EQ(r.decode(der.data(), der.size()),
              file != "invalid_response.pem" && file != "bad_status.pem");
    const bool decodes = expected != "PARSE_RESPONSE_ERROR" &&
                         expected != "PARSE_RESPONSE_DATA_ERROR" && expected != "ERROR_RESPONSE";
    EXPECT_EQ(r.basicResponse(&b), decodes);
    if (expected == "ERROR_RESPONSE") {
      EXPECT_EQ(r.responseStatus(), OCSPResponse::kMalformedRequest);
      EXPECT_FALSE(r.hasResponseBytes());
    }
    const std::string status = row.at("expected_revocation_status");
    if (decodes && (status == "GOOD" || status == "REVOKED")) {
      EXPECT_EQ(r.encode(), der);
      EXPECT_TRUE(std::any_of(b.responses().begin(), b.responses().end(), [&](const auto& s) {
        return s.certStatus == (status == "GOOD" ? OCSPSingleResponse::kGood
                                                 : OCSPSingleResponse::kRevoked);
      }));
    }

    // The request: SHA-1 of the issuer's subject Name and of its key bits,
    // and the certificate's serial.
    Certificate ca, cert;
    ASSERT_TRUE(ca.decode(blocks["CA CERTIFICATE"].data(), blocks["CA CERTIFICATE"].size()));
    ASSERT_TRUE(cert.decode(blocks["CERTIFICATE"].data(), blocks["CERTIFICATE"].size()));
    const Bytes name_hash = Sha1(ToBytes(ca.subjectBytes()));
    const Bytes key_hash = Sha1(ToBytes(ca.subjectPublicKey()));
    Bytes request;
    ASSERT_TRUE(quillon::pki::EncodeOcspRequest(quillon::der::Input(name_hash),
                                                quillon::der::Input(key_hash),
                                                cert.serialNumber(), &request));
    // This certificate's serial is encoded 00 05, which the reference request
    // copies; a serial held as a value is written minimally.
    if (file != "good_response_invalid_serial.pem") {
      EXPECT_EQ(request, blocks["OCSP REQUEST"].bytes());
    }
    // A digest of another length cannot be a SHA-1 CertID.
    EXPECT_FALSE(quillon::pki::EncodeOcspRequest(quillon::der::Input(Bytes(32, 1)),
                                                 quillon::der::Input(key_hash),
                                                 cert.serialNumber(), &request));
    EXPECT_TRUE(request.empty());
    ++checked;
  }
  EXPECT_EQ(checked, 36);
}

// Made here: a nonce, and single responses unknown and revoked with a reason
// (7 is outside CRLReason: revoked, with no reason) and invalidityDate, which
// the real ones lack. ResponseData of version v2 or with an element after its
// last, and a certStatus [3], are refused.
TEST(OcspResponse, MadeResponseDecodesToWhatWasSigned) {
  const qt::Pki pki = qt::MakePki(qt::KeyType::kEcP256);
  const time_t produced = qt::UtcTime(2024, 5, 1, 12), revoked = qt::UtcTime(2023, 2, 3, 4, 5, 6);
  const time_t invalid = qt::UtcTime(2023, 1, 1);
  const X509* ca = pki.intermediate.get();
  const Bytes der = qt::MakeOcspDer(
      {.responses = {{.issuerCert = ca, .status = qt::CertStatus::kRevoked,
                      .revocationTime = revoked, .reason = qt::kReasonAaCompromise,
                      .thisUpdate = produced - 60, .nextUpdate = std::nullopt,
                      .invalidityDate = invalid},
                     {.issuerCert = ca, .serial = 7, .status = qt::CertStatus::kUnknown,
                      .thisUpdate = produced - 60, .nextUpdate = produced + 86400},
                     {.issuerCert = ca, .serial = 8, .status = qt::CertStatus::kRevoked,
                      .reason = 7}},
       .producedAt = produced,
       .signerCert = pki.intermediate.get(),
       .signerKey = pki.intermediateKey,
       .nonce = Bytes{1, 2, 3, 4}});
  OCSPResponse r;
  BasicOCSPResponse b;
  ASSERT_TRUE(DecodeBasic(der, &r, &b));
  EXPECT_EQ(r.encode(), der);
  EXPECT_NE(b.responseExtension("1.3.6.1.5.5.7.48.1.2"), nullptr);
  ASSERT_EQ(b.responses().size(), 3u);
  const OCSPSingleResponse &first = b.responses()[0], &second = b.responses()[1];
  EXPECT_EQ(first.certStatus, OCSPSingleResponse::kRevoked);
  EXPECT_EQ(first.revocationTime.seconds(), revoked);
  EXPECT_EQ(first.revocationReason, 10);
  EXPECT_FALSE(first.hasNextUpdate);
  const Extension* e = first.extension("2.5.29.24");
  X500Time invalidity;
  ASSERT_TRUE(e && invalidity.decode(e->value.data(), e->value.size()));
  EXPECT_EQ(invalidity.seconds(), invalid);
  EXPECT_EQ(second.certStatus, OCSPSingleResponse::kUnknown);
  EXPECT_EQ(second.nextUpdate.seconds(), produced + 86400);
  EXPECT_EQ(b.responses()[2].certStatus, OCSPSingleResponse::kRevoked);
  EXPECT_EQ(b.responses()[2].revocationReason, -1);

  // The same ResponseData content with an element before or after it, or
  // the unknown status's [2] turned into [3], signed again.
  const ByteView tbs = b.tbsResponseData();
  const size_t header = tbs.data[1] < 0x80 ? 2 : 2 + (tbs.data[1] & 0x7F);
  const auto resigned = [&](const Bytes& before, const Bytes& content, const Bytes& after) {
    qt::DerWriter w;
    w.Begin(tag::kSequence);
    w.Raw(before);
    w.Raw(content);
    w.Raw(after);
    w.End();
    return qt::SignTbs(w.Take(), pki.intermediateKey);
  };
  const Bytes content(tbs.data + header, tbs.data + tbs.size);
  Bytes status_3 = content;
  const Bytes unknown = {0x02, 0x01, 0x07, 0x82, 0x00};  // serial 7, unknown
  const auto at = std::search(status_3.begin(), status_3.end(), unknown.begin(), unknown.end());
  ASSERT_NE(at, status_3.end());
  at[3] = 0x83;
  const std::pair<const char*, Bytes> kCases[] = {
      {"as made", resigned({}, content, {})},
      {"version v2", resigned({0xA0, 0x03, 0x02, 0x01, 0x01}, content, {})},
      {"trailing element", resigned({}, content, {0x05, 0x00})},
      {"certStatus [3]", resigned({}, status_3, {})},
  };
  for (const auto& [name, basic] : kCases) {
    BasicOCSPResponse again;
    EXPECT_EQ(again.decode(basic.data(), basic.size()), name == std::string("as made")) << name;
  }
}

// Every cut of a real response, a byte after it, an unused or unknown status
// and broken responseBytes fail. (The BoringSSL cases hold an error status.)
TEST(OcspResponse, MalformedEnvelopesFail) {
  const Bytes real = qt::ReadFile(qt::TestDataPath("real-ocsp/dss-real-responses/peru_ocsp.bin"));
  OCSPResponse r;
  for (size_t n = 0; n < real.size(); ++n) EXPECT_FALSE(r.decode(real.data(), n)) << n;
  Bytes trailing = real;
  trailing.push_back(0);
  const std::pair<const char*, Bytes> kCases[] = {
      {"trailing byte", trailing},
      {"status 4 (unused)", {0x30, 0x03, 0x0A, 0x01, 0x04}},
      {"status as INTEGER", {0x30, 0x03, 0x02, 0x01, 0x03}},
      {"responseBytes not explicit",
       {0x30, 0x0B, 0x0A, 0x01, 0x00, 0x80, 0x06, 0x30, 0x04, 0x06, 0x02, 0x2B, 0x06}},
  };
  for (const auto& [name, der] : kCases) {
    EXPECT_FALSE(r.decode(der.data(), der.size())) << name;
    EXPECT_EQ(r.responseStatus(), -1) << name;
  }
}

// A responder that writes a long-form length and signs what it wrote: the
// signed bytes stay as they came, the encoding becomes DER, and wrapping
// carries the bytes received.
TEST(OcspResponse, BerResponseKeepsTheSignedBytesAsReceived) {
  const qt::Pki pki = qt::MakePki(qt::KeyType::kEcP256);
  const Bytes der = qt::MakeOcspDer({.responses = {{.issuerCert = pki.intermediate.get()}},
                                     .signerCert = pki.intermediate.get(),
                                     .signerKey = pki.intermediateKey});
  OCSPResponse r;
  BasicOCSPResponse b;
  ASSERT_TRUE(DecodeBasic(der, &r, &b));
  const Bytes tbs = ToBytes(b.tbsResponseData()), ber_tbs = qt::LongFormLength(tbs);
  const Bytes ber = qt::SignTbs(ber_tbs, pki.intermediateKey);

  BasicOCSPResponse from_ber, again;
  ASSERT_TRUE(from_ber.decode(ber.data(), ber.size()));
  EXPECT_FALSE(from_ber.isStrictDER());
  EXPECT_EQ(ToBytes(from_ber.tbsResponseData()), ber_tbs);
  EXPECT_EQ(ToBytes(BasicOCSPResponse(from_ber).tbsResponseData()), ber_tbs);
  const Bytes encoded = from_ber.encode();
  ASSERT_TRUE(again.decode(encoded.data(), encoded.size()));
  EXPECT_TRUE(again.isStrictDER());
  EXPECT_EQ(ToBytes(again.tbsResponseData()), tbs);
  OCSPResponse wrapped;
  ASSERT_TRUE(wrapped.fromBasicResponse(from_ber));
  EXPECT_EQ(ToBytes(wrapped.response()), ber);
}

}  // namespace
