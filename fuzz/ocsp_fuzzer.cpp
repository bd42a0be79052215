// OCSP response decoding: the envelope, the basic response inside it and a
// basic response given directly. Every field of what decodes is read, and a
// copy and the re-encoding must decode to the same object.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "quillon32/ocsp_response.h"

namespace {

// Reads every byte of a view so that a view past its buffer is caught.
unsigned Touch(ByteView v) {
  unsigned sum = 0;
  for (size_t i = 0; i < v.size; ++i) sum += v.data[i];
  return sum;
}

unsigned Walk(const BasicOCSPResponse& b) {
  unsigned sum = Touch(b.tbsResponseData()) + Touch(b.signatureAlgorithm()) +
                 Touch(b.signatureValue()) + Touch(b.responderNameBytes()) +
                 Touch(b.responderKeyHash());
  sum += static_cast<unsigned>(b.version() + b.responderIDType());
  sum += static_cast<unsigned>(b.responderName().toString().size());
  sum += static_cast<unsigned>(b.signatureAlgorithmOID().size());
  sum += static_cast<unsigned>(b.producedAt().text()[0]);
  for (const OCSPSingleResponse& s : b.responses()) {
    sum += static_cast<unsigned>(s.certID.hashAlgorithm.size() + s.certID.hashAlgorithmOID.size() +
                                 s.certID.issuerNameHash.size() + s.certID.issuerKeyHash.size());
    sum += static_cast<unsigned>(s.certID.serialNumber.toHex().size());
    sum += static_cast<unsigned>(s.certStatus + s.revocationReason + s.hasNextUpdate);
    sum += static_cast<unsigned>(s.revocationTime.text()[0] + s.thisUpdate.text()[0] +
                                 s.nextUpdate.text()[0]);
    for (const Extension& e : s.singleExtensions) sum += static_cast<unsigned>(e.value.size());
    if (s.extension("2.5.29.24")) ++sum;
  }
  for (const Extension& e : b.responseExtensions()) sum += static_cast<unsigned>(e.value.size());
  for (const Certificate& c : b.certs()) sum += Touch(c.tbsCertificate());
  return sum;
}

void CheckBasic(const BasicOCSPResponse& b) {
  (void)Walk(b);
  const BasicOCSPResponse copy(b);
  if (!(copy == b) || copy.responses().size() != b.responses().size()) std::abort();
  const std::vector<unsigned char> der = b.encode();
  BasicOCSPResponse again;
  if (!again.decode(der.data(), der.size()) || !(again == b) || !again.isStrictDER()) std::abort();
  if (again.certs().size() != b.certs().size()) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OCSPResponse r;
  if (r.decode(data, size)) {
    (void)Touch(r.response());
    (void)r.responseType();
    if (r.responseStatus() < 0 || r.responseStatus() > 6) std::abort();
    const OCSPResponse copy(r);
    if (!(copy == r)) std::abort();
    const std::vector<unsigned char> der = r.encode();
    OCSPResponse again;
    if (!again.decode(der.data(), der.size()) || !(again == r) || !again.isStrictDER()) std::abort();

    BasicOCSPResponse b;
    if (r.basicResponse(&b)) {
      CheckBasic(b);
      // Wrapping the basic response again carries the same octets.
      OCSPResponse wrapped;
      if (!wrapped.fromBasicResponse(b) || wrapped.response().size != r.response().size)
        std::abort();
    } else if (b.isDecoded()) {
      std::abort();
    }
  }

  BasicOCSPResponse direct;
  if (direct.decode(data, size)) CheckBasic(direct);
  return 0;
}
