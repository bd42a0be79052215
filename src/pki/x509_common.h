// Parsing pieces shared by certificates, CRLs, attribute certificates and
// OCSP responses.
#pragma once

#include <string>
#include <vector>

#include "pki/der.h"
#include "quillon32/big_integer.h"
#include "quillon32/byte_view.h"
#include "quillon32/extensions.h"
#include "quillon32/name.h"
#include "quillon32/x500_time.h"

namespace quillon::pki {

inline ByteView ToView(der::Input in) { return ByteView{in.data(), in.size()}; }
inline der::Input ToInput(ByteView v) { return der::Input(v.data, v.size); }

// The bytes an object is parsed from: the input itself when it is DER, or
// its DER rewrite when it arrived in BER (|der_copy| then holds it).
// |received| keeps the input for the caller to pick raw elements from.
struct DerSource {
  std::vector<uint8_t> bytes;  // owned DER
  bool was_strict = true;
};

// Puts the DER form of the single constructed element |input| into
// |out->bytes| and tells whether the input already was strict DER. False on
// malformed input or trailing bytes.
[[nodiscard]] bool MakeDerSource(der::Input input, DerSource* out);

// Time ::= CHOICE { utcTime UTCTime, generalTime GeneralizedTime }
[[nodiscard]] bool ReadTime(der::Parser* p, X500Time* out);
// Reads a Time when the next element is one; *present tells.
[[nodiscard]] bool ReadOptionalTime(der::Parser* p, X500Time* out, bool* present);
[[nodiscard]] bool ReadGeneralizedTime(der::Parser* p, X500Time* out);
[[nodiscard]] bool ReadTime(der::BareReader* r, X500Time* out);

// AlgorithmIdentifier ::= SEQUENCE { algorithm OID, parameters ANY OPTIONAL }
// Gives the whole element and the OID's content octets.
// With |prove_der|, constructed parameters must also be strict DER (the
// parser checks the rest as it reads).
[[nodiscard]] bool ReadAlgorithmIdentifier(der::Parser* p, der::Input* whole, der::Input* oid,
                                           bool prove_der = false);
[[nodiscard]] bool ReadAlgorithmIdentifier(der::BareReader* r, der::Input* whole, der::Input* oid,
                                           bool prove_der = false);

// Extensions ::= SEQUENCE SIZE (1..MAX) OF Extension
// Extension ::= SEQUENCE { extnID OID, critical BOOLEAN DEFAULT FALSE,
//                          extnValue OCTET STRING }
// Rejects duplicate extensions (RFC 5280 4.2).
[[nodiscard]] bool ParseExtensions(der::Input sequence_content, std::vector<Extension>* out);
// True exactly when ParseExtensions() succeeds on |sequence_content|;
// checks without materialising the extensions.
[[nodiscard]] bool CheckExtensions(der::Input sequence_content);

const Extension* FindExtension(const std::vector<Extension>& exts, const char* oid);

// Whether a CRL or certificate INTEGER content is usable as a serial: not
// empty. Real-world CAs issue non-minimal encodings, which are accepted.
[[nodiscard]] bool ReadSerial(der::Parser* p, der::Input* content);

// Appends BigInteger::toHex()'s text of |value| to |out|.
void AppendHex(const BigInteger& value, std::string* out);

// The values an empty (undecoded) object answers with.
const BigInteger& ZeroInteger();
const Name& EmptyName();
const X500Time& NoTime();
const std::vector<Extension>& NoExtensions();

// Dotted text of an OID's content octets ("" when malformed).
std::string OidText(der::Input content);

}  // namespace quillon::pki
