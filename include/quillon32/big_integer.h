// BigInteger: an arbitrary-precision signed integer (certificate and CRL
// serial numbers), kept on an OpenSSL BIGNUM.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "quillon32/export.h"

struct bignum_st;

class QUILLON32_API BigInteger {
 public:
  // Zero.
  BigInteger();
  explicit BigInteger(long value);
  BigInteger(const BigInteger& other);
  BigInteger(BigInteger&& other) noexcept;
  BigInteger& operator=(const BigInteger& other);
  BigInteger& operator=(BigInteger&& other) noexcept;
  ~BigInteger();

  // Sets the value from the content octets of a DER INTEGER (big-endian two's
  // complement; BER's non-minimal forms are accepted). False, value unchanged,
  // on empty content or allocation failure.
  bool fromDerContent(const unsigned char* content, size_t length);
  // Sets the value from a whole INTEGER element (tag 0x02, length, content).
  bool decode(const unsigned char* der, size_t length);
  // Sets the value from base-16 text as toHex() prints it (an optional "-",
  // then hex digits of either case). False, value unchanged, on other text.
  bool fromHex(const char* text);

  // Minimal two's complement content octets (at least one octet).
  std::vector<unsigned char> toDerContent() const;
  // The whole INTEGER element in DER.
  std::vector<unsigned char> encode() const;

  // The one base-16 printer used wherever serials are stored or compared:
  // upper-case digits, two per octet of the magnitude's minimal big-endian
  // form, "-" before a negative value; zero prints as "00". The same text as
  // "openssl x509 -serial" prints, e.g. 0x0A1B -> "0A1B".
  std::string toHex() const;

  // -1, 0 or 1 as this value is below, equal to or above |other|.
  int compare(const BigInteger& other) const;
  bool operator==(const BigInteger& o) const { return compare(o) == 0; }
  bool operator!=(const BigInteger& o) const { return compare(o) != 0; }
  bool operator<(const BigInteger& o) const { return compare(o) < 0; }

  bool isNegative() const;
  bool isZero() const;
  // The underlying BIGNUM, owned by this object.
  const bignum_st* bignum() const { return bn_; }

 private:
  bignum_st* bn_;
};
