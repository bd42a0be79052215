// Feeds arbitrary bytes to the Name decoder and, as text, to the Name parser,
// and checks the properties the CA table and CRL cache rely on: a decoded
// name re-encodes to DER that decodes to the same name, and every printed
// name text parses back to a name that prints the same text; and the name
// printed straight from the bytes is the decoded name's text, accepted for
// exactly the bytes the decoder accepts.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "pki/der.h"
#include "pki/name_der.h"
#include "quillon32/name.h"

namespace {

void Check(bool condition) {
  if (!condition) std::abort();
}

// Properties of any name the library holds, however it was made.
void CheckName(const Name& name) {
  const std::vector<unsigned char> der = name.encode();
  Name again;
  Check(again.decode(der.data(), der.size()));
  Check(again.encode() == der);
  Check(again == name);

  const std::string text = name.toString();
  Check(text.find('\0') == std::string::npos);
  Name parsed;
  Check(parsed.parse(text.c_str()));
  Check(parsed.toString() == text);
  (void)name.attributeText("CN");
  (void)name.attributeText("2.5.4.6");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Name decoded;
  const bool was_decoded = decoded.decode(data, size);
  const quillon::der::Input input(data, size);
  std::string printed;
  Check(quillon::pki::PrintNameDer(input, &printed) == was_decoded);
  Check(quillon::pki::IsValidName(input) == was_decoded);
  if (quillon::der::IsStrictDer(input)) {
    Check(quillon::pki::IsValidNameInStrictDer(input) == was_decoded);
    std::string strict_printed;
    Check(quillon::pki::PrintStrictDerName(input, &strict_printed) == was_decoded);
    Check(strict_printed == printed);
  }
  if (was_decoded) {
    Check(printed == decoded.toString());
    CheckName(decoded);
    Name normalised = decoded;
    normalised.normalise();
    CheckName(normalised);
  }

  const std::string text(reinterpret_cast<const char*>(data), size);
  Name parsed;
  if (parsed.parse(text.c_str())) CheckName(parsed);
  return 0;
}
