// Names read straight from their encoded bytes, for look-ups that need a
// name's text, or to know it is well formed, without making a Name.
//
// Both go through the reader and the printer Name::decode and
// Name::toString use, so a text printed here is the text the same bytes
// give as a decoded Name: the CA table and CRL cache keys stay one text.
#pragma once

#include <string>

#include "pki/der.h"
#include "quillon32/name.h"

namespace quillon::pki {

// True exactly when Name::decode accepts |name_tlv| (a whole Name element in
// DER or BER).
[[nodiscard]] bool IsValidName(der::Input name_tlv);

// The same answer for |name_der| known to be strict DER (an element of a
// certificate that is), without checking that again.
[[nodiscard]] bool IsValidNameInStrictDer(der::Input name_der);

// Name::toString's text of |name|, written over the text in |*out| (whose
// storage is reused).
void PrintName(const Name& name, std::string* out);

// The text Name::toString prints for the Name that Name::decode makes of
// |name_tlv|. False, with |out| empty, when Name::decode rejects the bytes.
[[nodiscard]] bool PrintNameDer(der::Input name_tlv, std::string* out);
// The same for |name_der| known to be strict DER, without checking that again.
[[nodiscard]] bool PrintStrictDerName(der::Input name_der, std::string* out);

}  // namespace quillon::pki
