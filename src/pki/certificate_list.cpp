// CertificateList: X.509 CRLs, built for lists of millions of entries.
//
// The object owns the CRL in DER: a copy it made, or the caller's vector,
// handed over. Decoding reads the header fields and walks
// revokedCertificates once, in the caller's bytes before any copy is made,
// checking each entry's shape, noting where it starts and indexing its
// serial; entries are decoded only when asked for. Look-up by serial text
// goes through an open-addressing hash table of entry numbers,
// filled during that walk while the entries' bytes are in cache, keyed by
// the serial in minimal two's complement form, so that the answer is the
// first entry in encoded order whose printed serial equals the text (what a
// walk printing each serial would find) in constant time.
//
// Memory for a CRL of n entries: the DER, 4 bytes per entry of offsets and
// a hash table of 4-byte slots, 2.5 per entry; both sized from the first
// entries with an eighth to spare (about 16 bytes per entry, at most 19 when
// the entries' sizes vary along the list). Large buffers come from the
// platform's huge-page allocator, except a vector handed over, which is kept
// as it came.

#include "quillon32/certificate_list.h"

#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#include <emmintrin.h>
#define QUILLON_HEX_SSE2 1
#else
#define QUILLON_HEX_SSE2 0
#endif

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>
#include <limits>

#include "pki/der.h"
#include "pki/x509_common.h"
#include "platform/cpu.h"
#include "platform/large_memory.h"

using quillon::der::Input;
using quillon::der::Parser;
namespace der = quillon::der;
namespace pki = quillon::pki;
namespace platform = quillon::platform;

// Bytes of a CRL: millions of entries make tens of megabytes.
using LargeBytes = std::vector<uint8_t, platform::LargeAllocator<uint8_t>>;

namespace quillon::pki {
namespace {

// ---------------------------------------------------------------------------
// Entry walking on raw DER.
//
// revokedCertificates is read with a small header reader rather than a
// Parser: it runs once per entry on lists of millions. It accepts only what
// the DER Parser accepts (single-octet tags, minimal definite lengths of at
// most four octets), which holds for every byte string the object parses:
// either the input when it is DER, or its DER rewrite.

struct Header {
  uint8_t tag = 0;
  size_t header = 0;  // identifier and length octets
  size_t length = 0;  // content octets
};

// Reads the element header at |p| with |avail| bytes left; the content must
// fit in them.
inline bool ReadHeader(const uint8_t* p, size_t avail, Header* h) {
  if (avail < 2) return false;
  const uint8_t tag = p[0];
  if ((tag & 0x1F) == 0x1F) return false;  // entries use low tag numbers only
  const uint8_t l0 = p[1];
  size_t len = 0, hdr = 2;
  if (l0 < 0x80) {
    len = l0;
  } else if (!der::detail::DecodeLongLength(p, avail, &hdr, l0, der::Mode::kDer, &len)) {
    return false;
  }
  if (len > avail - hdr) return false;
  h->tag = tag;
  h->header = hdr;
  h->length = len;
  return true;
}

constexpr uint8_t kBooleanTag = 0x01;
constexpr uint8_t kIntegerTag = 0x02;
constexpr uint8_t kOctetStringTag = 0x04;
constexpr uint8_t kOidTag = 0x06;
constexpr uint8_t kUtcTimeTag = 0x17;
constexpr uint8_t kGeneralizedTimeTag = 0x18;
constexpr uint8_t kSequenceTag = 0x30;

// Extension ::= SEQUENCE { extnID OID, critical BOOLEAN DEFAULT FALSE,
//                          extnValue OCTET STRING }
// The shape only; values are read when the entry is decoded.
bool CheckExtensionShape(const uint8_t* p, size_t n) {
  Header h;
  if (!ReadHeader(p, n, &h) || h.tag != kOidTag || h.length == 0) return false;
  size_t at = h.header + h.length;
  if (!ReadHeader(p + at, n - at, &h)) return false;
  if (h.tag == kBooleanTag) {
    if (h.length != 1) return false;
    at += h.header + h.length;
    if (!ReadHeader(p + at, n - at, &h)) return false;
  }
  return h.tag == kOctetStringTag && at + h.header + h.length == n;
}

// crlEntryExtensions, which must fill the rest of the entry's content: |n|
// bytes at |p|.
bool CheckEntryExtensions(const uint8_t* p, size_t n, bool allow_extensions) {
  // Extensions ::= SEQUENCE SIZE (1..MAX) OF Extension; version 2 only.
  if (!allow_extensions) return false;
  Header h;
  if (!ReadHeader(p, n, &h) || h.tag != kSequenceTag || h.length == 0) return false;
  size_t at = h.header;
  const size_t end = at + h.length;
  if (end != n) return false;
  while (at < end) {
    Header x;
    if (!ReadHeader(p + at, end - at, &x) || x.tag != kSequenceTag) return false;
    if (!CheckExtensionShape(p + at + x.header, x.length)) return false;
    at += x.header + x.length;
  }
  return true;
}

// Entry ::= SEQUENCE { userCertificate CertificateSerialNumber,
//   revocationDate Time, crlEntryExtensions Extensions OPTIONAL }
// Checks the entry starting at |p| and gives its whole length. Serials of any
// length and non-minimal form are accepted: CAs issue them. Times are checked
// by tag only here, and read in full when the entry is decoded.
bool CheckAnyEntry(const uint8_t* p, size_t avail, bool allow_extensions, size_t* whole,
                   Input* serial) {
  Header e;
  if (!ReadHeader(p, avail, &e) || e.tag != kSequenceTag) return false;
  const uint8_t* c = p + e.header;
  const size_t n = e.length;
  Header h;
  if (!ReadHeader(c, n, &h) || h.tag != kIntegerTag || h.length == 0) return false;
  *serial = Input(c + h.header, h.length);
  size_t at = h.header + h.length;
  if (!ReadHeader(c + at, n - at, &h) || (h.tag != kUtcTimeTag && h.tag != kGeneralizedTimeTag) ||
      h.length == 0)
    return false;
  at += h.header + h.length;
  if (at < n && !CheckEntryExtensions(c + at, n - at, allow_extensions)) return false;
  *whole = e.header + n;
  return true;
}

// The |T| stored at |p| in the machine's byte order, at any alignment.
template <typename T>
inline T Load(const uint8_t* p) {
  T v;
  std::memcpy(&v, p, sizeof v);
  return v;
}

// An identifier octet and a short-form length octet read as one word: the
// tag in the low byte (the form bit of the length is kept, to be tested).
inline bool IsShortTlv(uint16_t word, uint8_t tag) {
  return (word & 0x80FF) == tag;
}

// CheckEntryExtensions() for version 2, quicker for the usual extensions
// (a reasonCode, an invalidityDate), whose lengths all fit one octet: true
// when it finds them well formed. False says only that this path does not
// take them; CheckEntryExtensions() then decides.
inline bool CheckShortExtensions(const uint8_t* p, size_t n) {
  if (n < 2) return false;
  uint16_t w = Load<uint16_t>(p);
  if (!IsShortTlv(w, kSequenceTag) || (w >> 8) == 0 || (w >> 8) + size_t{2} != n) return false;
  for (size_t at = 2; at < n;) {
    if (n - at < 2) return false;
    w = Load<uint16_t>(p + at);
    const size_t length = w >> 8;  // of the Extension
    if (!IsShortTlv(w, kSequenceTag) || length > n - at - 2) return false;
    const uint8_t* x = p + at + 2;
    if (length < 2) return false;
    w = Load<uint16_t>(x);  // extnID
    size_t k = 2 + (w >> 8);
    if (!IsShortTlv(w, kOidTag) || (w >> 8) == 0 || k + 2 > length) return false;
    w = Load<uint16_t>(x + k);
    if (IsShortTlv(w, kBooleanTag)) {  // critical
      if ((w >> 8) != 1) return false;
      k += 3;
      if (k + 2 > length) return false;
      w = Load<uint16_t>(x + k);
    }
    if (!IsShortTlv(w, kOctetStringTag) || k + 2 + (w >> 8) != length) return false;
    at += 2 + length;
  }
  return true;
}

// CheckAnyEntry(), quicker for the usual entry, where every length fits in
// one octet. Whatever this path does not accept at once goes to
// CheckAnyEntry(), so both accept the same entries.
inline bool CheckEntry(const uint8_t* p, size_t avail, bool allow_extensions, size_t* whole,
                       Input* serial) {
  if (avail >= 2) {
    const uint16_t e = Load<uint16_t>(p);
    const size_t n = e >> 8;
    if (IsShortTlv(e, kSequenceTag) && n >= 2 && n <= avail - 2) {
      const uint8_t* c = p + 2;
      const uint16_t s = Load<uint16_t>(c);
      const size_t s_len = s >> 8;
      const size_t at = 2 + s_len;
      if (IsShortTlv(s, kIntegerTag) && s_len != 0 && at + 2 <= n) {
        const uint16_t t = Load<uint16_t>(c + at);
        const size_t end = at + 2 + (t >> 8);
        if ((IsShortTlv(t, kUtcTimeTag) || IsShortTlv(t, kGeneralizedTimeTag)) && (t >> 8) != 0 &&
            end <= n) {
          if (end < n && !(allow_extensions && CheckShortExtensions(c + end, n - end)) &&
              !CheckEntryExtensions(c + end, n - end, allow_extensions))
            return false;
          *serial = Input(c + 2, s_len);
          *whole = 2 + n;
          return true;
        }
      }
    }
  }
  return CheckAnyEntry(p, avail, allow_extensions, whole, serial);
}

// The header length of an element already checked by ReadHeader(), and its
// content length in |length|.
inline size_t CheckedHeader(const uint8_t* p, size_t* length) {
  const uint8_t l0 = p[1];
  if (l0 < 0x80) {
    *length = l0;
    return 2;
  }
  const size_t count = l0 & 0x7F;
  size_t len = 0;
  for (size_t k = 0; k < count; ++k) len = (len << 8) | p[2 + k];
  *length = len;
  return 2 + count;
}

// The whole length of the element at |p| (already checked).
inline size_t WholeLength(const uint8_t* p) {
  size_t length;
  return CheckedHeader(p, &length) + length;
}

// The serial's content octets of the entry at |p| (already checked).
inline Input EntrySerial(const uint8_t* p) {
  size_t entry_length, serial_length;
  const size_t entry_header = CheckedHeader(p, &entry_length);
  const size_t serial_header = CheckedHeader(p + entry_header, &serial_length);
  return Input(p + entry_header + serial_header, serial_length);
}

// Where each entry starts, counted from the start of the DER.
using Offsets = std::vector<uint32_t>;

// The minimal two's complement form of INTEGER content octets: redundant
// leading sign octets removed (X.690 8.3.2).
inline Input MinimalInteger(Input v) {
  const uint8_t* p = v.data();
  size_t n = v.size();
  while (n > 1 && ((p[0] == 0x00 && !(p[1] & 0x80)) || (p[0] == 0xFF && (p[1] & 0x80)))) {
    ++p;
    --n;
  }
  return Input(p, n);
}

// ---------------------------------------------------------------------------
// Serial text.

// The octets of |v| in the reverse order: big-endian machines read text
// the other way round.
[[maybe_unused]] inline uint64_t ByteSwap64(uint64_t v) {
  v = ((v & 0x00FF00FF00FF00FFULL) << 8) | ((v >> 8) & 0x00FF00FF00FF00FFULL);
  v = ((v & 0x0000FFFF0000FFFFULL) << 16) | ((v >> 16) & 0x0000FFFF0000FFFFULL);
  return (v << 32) | (v >> 32);
}

// Digit values of the upper-case hexadecimal the printer writes; 0xFF for
// any other character (lower case included: it never matches).
constexpr auto kHexValue = [] {
  std::array<uint8_t, 256> t{};
  t.fill(0xFF);
  for (int c = 0; c < 10; ++c) t['0' + c] = static_cast<uint8_t>(c);
  for (int c = 0; c < 6; ++c) t['A' + c] = static_cast<uint8_t>(10 + c);
  return t;
}();

// Eight upper-case hexadecimal digits at |text| written as four octets at
// |out|, all eight checked at once in one word; false when any is not one of
// "0123456789ABCDEF". Serial texts are 32 to 40 digits: a look-up spends
// less time here than reading them digit by digit.
inline bool HexToFourOctets(const char* text, uint8_t* out) {
  constexpr uint64_t kOnes = 0x0101010101010101ULL, kHigh = 0x8080808080808080ULL;
  uint64_t v;
  std::memcpy(&v, text, 8);
  if (v & kHigh) return false;
  // With every octet below 0x80, adding up to 0x7F carries into no other
  // octet: each sum's top bit tells whether that octet reached a bound.
  const uint64_t digit = (v + kOnes * (0x80 - '0')) & ~(v + kOnes * (0x80 - '9' - 1));
  const uint64_t letter = (v + kOnes * (0x80 - 'A')) & ~(v + kOnes * (0x80 - 'F' - 1));
  if (((digit | letter) & kHigh) != kHigh) return false;
  // '0'..'9' carry their value in the low nibble; 'A'..'F' carry 1..6.
  const uint64_t nibbles = (v & (kOnes * 0x0F)) + ((letter & kHigh) >> 7) * 9;
  // Octet k of the text (in memory order) is the low octet of the word on
  // little-endian machines and the high one on big-endian ones.
  uint64_t n = nibbles;
  if constexpr (std::endian::native == std::endian::big) n = ByteSwap64(n);
  // Octet 2k takes its pair's high nibble, then even octets are packed.
  uint64_t pairs = ((n << 4) | (n >> 8)) & 0x00FF00FF00FF00FFULL;
  pairs = (pairs | (pairs >> 8)) & 0x0000FFFF0000FFFFULL;
  pairs = (pairs | (pairs >> 16)) & 0xFFFFFFFFULL;
  uint32_t octets = static_cast<uint32_t>(pairs);
  if constexpr (std::endian::native == std::endian::big)
    octets = static_cast<uint32_t>(ByteSwap64(octets) >> 32);
  std::memcpy(out, &octets, 4);
  return true;
}

#if QUILLON_HEX_SSE2
// Sixteen digits at |text| written as eight octets at |out|, as above, in
// one vector.
inline bool HexToEightOctets(const char* text, uint8_t* out) {
  const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(text));
  const __m128i zero = _mm_setzero_si128();
  const __m128i d = _mm_sub_epi8(v, _mm_set1_epi8('0'));
  const __m128i l = _mm_sub_epi8(v, _mm_set1_epi8('A'));
  // Unsigned d <= 9 and l <= 5: a saturating subtraction leaves zero.
  const __m128i is_digit = _mm_cmpeq_epi8(_mm_subs_epu8(d, _mm_set1_epi8(9)), zero);
  const __m128i is_letter = _mm_cmpeq_epi8(_mm_subs_epu8(l, _mm_set1_epi8(5)), zero);
  if (_mm_movemask_epi8(_mm_or_si128(is_digit, is_letter)) != 0xFFFF) return false;
  const __m128i value = _mm_or_si128(_mm_and_si128(is_digit, d),
                                     _mm_and_si128(is_letter, _mm_add_epi8(l, _mm_set1_epi8(10))));
  // Each 16-bit lane holds a pair, the high digit in its low octet.
  const __m128i pairs = _mm_and_si128(
      _mm_or_si128(_mm_slli_epi16(value, 4), _mm_srli_epi16(value, 8)), _mm_set1_epi16(0x00FF));
  _mm_storel_epi64(reinterpret_cast<__m128i*>(out), _mm_packus_epi16(pairs, pairs));
  return true;
}
#endif

// The minimal INTEGER content octets of the value that BigInteger::toHex()
// prints as |text|, written to |buffer| (one octet longer than half the
// digits) and viewed by |out|; false when no value prints as |text|. The
// printer writes an optional "-", then two upper-case digits per octet of
// the magnitude's minimal big-endian form, and "00" for zero: so "0A" has a
// value, while "A", "0a", "000A" and "-00" have none.
bool SerialTextToContent(const char* text, size_t length, uint8_t* buffer, Input* out) {
  const bool negative = text[0] == '-';
  const char* digits = negative ? text + 1 : text;
  const size_t count = negative ? length - 1 : length;
  if (count == 0 || count % 2 != 0) return false;
  const size_t octets = count / 2;
  uint8_t* magnitude = buffer + 1;
  size_t i = 0;
#if QUILLON_HEX_SSE2
  for (; i + 8 <= octets; i += 8) {
    if (!HexToEightOctets(digits + 2 * i, magnitude + i)) return false;
  }
#endif
  for (; i + 4 <= octets; i += 4) {
    if (!HexToFourOctets(digits + 2 * i, magnitude + i)) return false;
  }
  for (; i < octets; ++i) {
    const uint8_t hi = kHexValue[static_cast<uint8_t>(digits[2 * i])];
    const uint8_t lo = kHexValue[static_cast<uint8_t>(digits[2 * i + 1])];
    if ((hi | lo) > 15) return false;
    magnitude[i] = static_cast<uint8_t>(hi << 4 | lo);
  }
  if (magnitude[0] == 0) {
    // Only zero prints a leading zero octet, and only unsigned.
    if (octets != 1 || negative) return false;
    *out = Input(magnitude, 1);
    return true;
  }
  if (negative) {
    // Two's complement of the magnitude.
    for (size_t i = 0; i < octets; ++i) magnitude[i] = static_cast<uint8_t>(~magnitude[i]);
    for (size_t i = octets; i-- > 0;) {
      if (++magnitude[i] != 0) break;
    }
    buffer[0] = 0xFF;
  } else {
    buffer[0] = 0x00;
  }
  // The sign octet stays only where the top bit would say the other sign.
  const bool keep_sign = negative ? !(magnitude[0] & 0x80) : (magnitude[0] & 0x80);
  *out = keep_sign ? Input(buffer, octets + 1) : Input(magnitude, octets);
  return true;
}

// A seed for an object's hash table, mixed from its address.
uint64_t SeedFrom(const void* object) {
  uint64_t h = reinterpret_cast<uintptr_t>(object) ^ 0x51A7E5EEDULL;
  h ^= h >> 30;
  h *= 0xBF58476D1CE4E5B9ULL;
  h ^= h >> 27;
  h *= 0x94D049BB133111EBULL;
  return h ^ (h >> 31);
}

// Whether two serials' content octets are the same, compared a word at a
// time: a look-up ends with one such comparison.
inline bool SameOctets(Input a, Input b) {
  const size_t n = a.size();
  if (n != b.size()) return false;
  if (n < 8) return n == 0 || std::memcmp(a.data(), b.data(), n) == 0;
  for (size_t k = 0; k + 8 < n; k += 8) {
    if (Load<uint64_t>(a.data() + k) != Load<uint64_t>(b.data() + k)) return false;
  }
  return Load<uint64_t>(a.data() + n - 8) == Load<uint64_t>(b.data() + n - 8);
}

// The 128-bit product of |a| and |b|, folded to 64 bits.
inline uint64_t MixProduct(uint64_t a, uint64_t b) {
#if defined(__SIZEOF_INT128__)
  const unsigned __int128 r = static_cast<unsigned __int128>(a) * b;
  return static_cast<uint64_t>(r) ^ static_cast<uint64_t>(r >> 64);
#else
  // Compilers without a 128-bit type (32-bit targets): the product from
  // 32-bit halves.
  const uint64_t a_lo = a & 0xFFFFFFFFu, a_hi = a >> 32, b_lo = b & 0xFFFFFFFFu, b_hi = b >> 32;
  const uint64_t lo_lo = a_lo * b_lo, hi_lo = a_hi * b_lo, lo_hi = a_lo * b_hi;
  const uint64_t cross = (lo_lo >> 32) + (hi_lo & 0xFFFFFFFFu) + lo_hi;
  const uint64_t high = a_hi * b_hi + (hi_lo >> 32) + (cross >> 32);
  const uint64_t low = (cross << 32) | (lo_lo & 0xFFFFFFFFu);
  return low ^ high;
#endif
}

// The hash of a serial's minimal content octets. A leading sign octet (00
// before a set top bit, FF before a clear one: a minimal integer has one
// only then) is left out, and only which of the three it was is mixed in, so
// that a positive serial is hashed by the octets of its magnitude. These are
// read from the front, eight at a time, then four, then one at a time: the
// way findSerial() writes them when it turns a text into octets, so that
// each read there takes its value from one write (a read across two writes
// still on their way to the cache waits for them). Each word is mixed into
// the running hash before it is multiplied by a factor made from the seed,
// so that no chosen serial can zero a product.
inline uint64_t HashSerial(const uint8_t* p, size_t n, uint64_t seed) {
  uint64_t sign = 0;
  if (n > 1 && (p[0] == 0x00 || p[0] == 0xFF)) {
    sign = 1 + (p[0] & 1);
    ++p;
    --n;
  }
  const uint64_t factor = seed ^ 0xA0761D6478BD642FULL;
  uint64_t h = seed ^ ((static_cast<uint64_t>(n) << 2 | sign) * 0x9E3779B97F4A7C15ULL);
  size_t k = 0;
  for (; k + 8 <= n; k += 8) h = MixProduct(h ^ Load<uint64_t>(p + k), factor);
  if (k + 4 <= n) {
    h = MixProduct(h ^ Load<uint32_t>(p + k), factor ^ 0xE7037ED1A0B428DBULL);
    k += 4;
  }
  if (k < n) {
    uint64_t tail = 0;
    for (; k < n; ++k) tail = tail << 8 | p[k];
    h = MixProduct(h ^ tail, factor ^ 0x8EBC6AF09C88C6E3ULL);
  }
  return h;
}

// ---------------------------------------------------------------------------
// The serial index: open addressing with linear probing over 4-byte slots,
// 2.5 per entry. A slot holds 0 (free) or the entry number + 1 in its low
// |bits| bits, with hash bits above them: most probes that would not match
// are told apart without reading an entry. Small slots at a low load make
// short probes in a small table: filling it is a random write per entry,
// and each probe past the home slot was a branch the processor guessed
// wrong about half the time.

// The home slot of a hash among |slots|; its high bits choose it.
inline size_t HomeOf(uint32_t hash, size_t slots) {
  return static_cast<size_t>((static_cast<uint64_t>(hash) * slots) >> 32);
}
// The hash bits a slot carries above the entry number: the low bits of the
// hash.
// (Shifted in 64 bits, so that 32 bits of entry number leave no tag and no
// shift is out of range.)
inline uint32_t TagOf(uint32_t hash, unsigned bits) {
  return static_cast<uint32_t>(uint64_t{hash} << bits);
}
inline uint32_t EntryMask(unsigned bits) {
  return static_cast<uint32_t>((uint64_t{1} << bits) - 1);
}

inline uint32_t MakeSlot(uint32_t hash, size_t number, unsigned bits) {
  return TagOf(hash, bits) | static_cast<uint32_t>(number + 1);
}

// Fills an empty index with up to |room| entries given in encoded order, so
// that a serial listed twice keeps its first entry. Each is inserted kAhead
// entries after its home slot was prefetched: the inserts are random writes
// over a table larger than the caches.
class IndexFiller {
 public:
  // |offsets| are those of the entries at |der|, each noted before the
  // entry is added: the new entry's serial, and a held one's when another
  // hashes alike, are read there.
  IndexFiller(uint32_t* table, size_t slots, unsigned bits, size_t room, const uint8_t* der,
              const Offsets& offsets)
      : table_(table), slots_(slots), bits_(bits), tag_mask_(~EntryMask(bits)), room_(room),
        der_(der), offsets_(offsets) {}

  // The next entry in encoded order, whose serial has |hash|; false,
  // leaving it out, when the table has no room left.
  bool Add(uint32_t hash) {
    if (added_ == room_) return false;
    Pending& next = pending_[added_ % kAhead];
    if (added_ >= kAhead) Insert(next);
    next = {HomeOf(hash, slots_), MakeSlot(hash, added_, bits_)};
    platform::PrefetchForWrite(table_ + next.home);
    ++added_;
    return true;
  }
  // Inserts the entries still waiting.
  void Finish() {
    for (size_t i = added_ > kAhead ? added_ - kAhead : 0; i < added_; ++i)
      Insert(pending_[i % kAhead]);
  }

 private:
  static constexpr size_t kAhead = 16;
  struct Pending {
    size_t home;    // the slot its hash names
    uint32_t slot;  // what it puts there
  };

  // The serial of the entry a slot names.
  Input SerialOf(uint32_t slot) const {
    return MinimalInteger(EntrySerial(der_ + offsets_[(slot & ~tag_mask_) - 1]));
  }

  // Puts |e| into the first free slot from its home, unless an entry met
  // on the way has the same serial: the first one listed is kept.
  void Insert(const Pending& e) {
    for (size_t at = e.home;; at = at + 1 == slots_ ? 0 : at + 1) {
      const uint32_t held = table_[at];
      if (held == 0) {
        table_[at] = e.slot;
        return;
      }
      if (((held ^ e.slot) & tag_mask_) == 0 && SameOctets(SerialOf(held), SerialOf(e.slot)))
        return;
    }
  }

  uint32_t* table_;
  size_t slots_;
  unsigned bits_;
  uint32_t tag_mask_;
  size_t room_;
  const uint8_t* der_;
  const Offsets& offsets_;
  size_t added_ = 0;
  Pending pending_[kAhead];
};

}  // namespace
}  // namespace quillon::pki

// ---------------------------------------------------------------------------

struct CertificateList::Impl {
  // The DER the object is parsed from: the input itself when it is DER, or
  // its DER rewrite when it arrived in BER. It is a copy, held in large
  // pages, or the caller's own vector, taken over by decode(vector&&).
  class Source {
   public:
    Source() = default;
    Source(const Source& o) : copied_(o.data(), o.data() + o.size()) {}
    Source& operator=(const Source&) = delete;

    const uint8_t* data() const { return taken_.empty() ? copied_.data() : taken_.data(); }
    size_t size() const { return taken_.empty() ? copied_.size() : taken_.size(); }
    Input view() const { return Input(data(), size()); }
    size_t footprint() const {
      return platform::LargeFootprint(copied_.capacity()) + taken_.capacity();
    }

    void Copy(const uint8_t* bytes, size_t length) {
      StartCopy(bytes, length);
      FinishCopy();
    }
    void Take(std::vector<uint8_t>* bytes) { taken_.swap(*bytes); }

    // A copy made along a walk over |bytes|: CopyAlong() copies what the
    // walk has read, a stretch at a time while it is still in cache, and
    // FinishCopy() the rest. Outside such a copy both do nothing.
    void StartCopy(const uint8_t* bytes, size_t length) {
      copied_.resize(length);
      from_ = bytes;
      done_ = 0;
    }
    void CopyAlong(size_t read) {
      if (from_ && read - done_ >= kStretch) CopyTo(read);
    }
    void FinishCopy() {
      if (from_) CopyTo(copied_.size());
      from_ = nullptr;
    }

   private:
    static constexpr size_t kStretch = 256 * 1024;
    void CopyTo(size_t end) {
      std::memcpy(copied_.data() + done_, from_ + done_, end - done_);
      done_ = end;
    }

    LargeBytes copied_;
    std::vector<uint8_t> taken_;
    const uint8_t* from_ = nullptr;
    size_t done_ = 0;
  } src;
  // The to-be-signed bytes as received, kept only when the input was not DER.
  std::vector<uint8_t> received_tbs;

  // Views into the bytes Parse() read (then moved onto src).
  Input tbs, sig_alg, sig_value, issuer_raw;
  int version = 1;
  Name issuer;
  X500Time this_update, next_update;
  bool has_next_update = false;
  std::vector<Extension> extensions;

  // Offset in src of every entry, in encoded order.
  pki::Offsets offsets;

  // The serial index (see IndexFiller), keyed by the serial in minimal two's
  // complement form, filled while decoding walks the entries, 2.5 to 3.3
  // slots per entry. The hash seed differs between objects and runs (it is
  // the object's address), so that serials crafted to collide cannot be
  // prepared; a copy keeps its original's seed along with the table.
  std::vector<uint32_t, platform::LargeAllocator<uint32_t>> index;
  unsigned index_bits = 0;
  uint64_t seed = 0;

  Impl() = default;
  Impl(const Impl& o)
      : src(o.src),
        received_tbs(o.received_tbs),
        version(o.version),
        issuer(o.issuer),
        this_update(o.this_update),
        next_update(o.next_update),
        has_next_update(o.has_next_update),
        extensions(o.extensions),
        offsets(o.offsets),
        index(o.index),
        index_bits(o.index_bits),
        seed(o.seed) {
    // Same bytes, already checked: move the views over to the new copy.
    CopyViews(o, o.src.data());
  }
  // Sets the views to |o|'s, moved from the bytes at |from| onto src,
  // which holds the same bytes.
  void CopyViews(const Impl& o, const uint8_t* from) {
    const uint8_t* to = src.data();
    const auto rebase = [&](Input v) {
      return v.data() ? Input(to + (v.data() - from), v.size()) : Input();
    };
    tbs = rebase(o.tbs);
    sig_alg = rebase(o.sig_alg);
    sig_value = rebase(o.sig_value);
    issuer_raw = rebase(o.issuer_raw);
  }
  Impl& operator=(const Impl&) = delete;

  // Start of the bytes being parsed, during Parse().
  const uint8_t* walk_base = nullptr;

  size_t EntryCount() const { return offsets.size(); }

  // Entry |i| (below EntryCount()), whole.
  Input Entry(size_t i) const {
    const uint8_t* p = src.data() + offsets[i];
    return Input(p, pki::WholeLength(p));
  }

  // CertificateList ::= SEQUENCE { tbsCertList TBSCertList,
  //   signatureAlgorithm AlgorithmIdentifier, signatureValue BIT STRING }
  // Parses |whole|, which is src or the same bytes elsewhere: the
  // views then point into |whole|, and entry offsets count from its start.
  bool Parse(Input whole) {
    if (whole.size() > std::numeric_limits<uint32_t>::max()) return false;
    walk_base = whole.data();
    Parser outer{whole};
    Parser crl;
    if (!outer.ReadSequence(&crl) || outer.HasMore()) return false;
    der::Tag tag;
    Input tbs_value;
    if (!crl.PeekTag(&tag) || tag != der::kSequence) return false;
    if (!crl.ReadElement(&tag, &tbs_value, &tbs)) return false;
    Input sig_oid;
    if (!pki::ReadAlgorithmIdentifier(&crl, &sig_alg, &sig_oid)) return false;
    // A signature that is not whole octets cannot verify, but the CRL is
    // still well formed (PKITS lists one): it decodes, with no signature.
    uint8_t unused = 0;
    if (!crl.ReadBitString(&sig_value, &unused) || crl.HasMore()) return false;
    if (unused != 0) sig_value = Input();
    return ParseTbs(tbs_value);
  }

  // TBSCertList ::= SEQUENCE {
  //   version Version OPTIONAL, -- if present, MUST be v2
  //   signature AlgorithmIdentifier,
  //   issuer Name,
  //   thisUpdate Time,
  //   nextUpdate Time OPTIONAL,
  //   revokedCertificates SEQUENCE OF SEQUENCE {
  //     userCertificate CertificateSerialNumber,
  //     revocationDate Time,
  //     crlEntryExtensions Extensions OPTIONAL -- if present, version MUST be v2
  //   } OPTIONAL,
  //   crlExtensions [0] EXPLICIT Extensions OPTIONAL -- if present, version MUST be v2
  // }
  bool ParseTbs(Input content) {
    Parser p(content);
    der::Tag tag;
    version = 1;
    if (!p.PeekTag(&tag)) return false;
    if (tag == der::kInteger) {
      // Version ::= INTEGER { v1(0), v2(1) }; v1 is written by leaving it out.
      uint64_t v = 0;
      if (!p.ReadUint64(&v) || v != 1) return false;
      version = 2;
    }
    // The signed algorithm must be the one the signature claims (RFC 5280
    // 5.1.1.2), or the outer, unsigned one could be swapped.
    Input inner_alg, inner_oid;
    if (!pki::ReadAlgorithmIdentifier(&p, &inner_alg, &inner_oid) || !(inner_alg == sig_alg))
      return false;
    if (!p.PeekTag(&tag) || tag != der::kSequence || !p.ReadRawTLV(&issuer_raw) ||
        !issuer.decode(issuer_raw.data(), issuer_raw.size()))
      return false;
    if (!pki::ReadTime(&p, &this_update)) return false;
    next_update = X500Time();
    if (!pki::ReadOptionalTime(&p, &next_update, &has_next_update)) return false;
    Input revoked;
    bool present = false;
    if (!p.ReadOptional(der::kSequence, &revoked, &present)) return false;
    offsets.clear();
    decltype(index)().swap(index);
    if (present && !WalkEntries(revoked)) return false;
    Parser exts;
    if (!p.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &exts, &present))
      return false;
    extensions.clear();
    if (present) {
      if (version != 2) return false;
      Input seq;
      if (!exts.Read(der::kSequence, &seq) || exts.HasMore()) return false;
      if (!pki::ParseExtensions(seq, &extensions)) return false;
    }
    return !p.HasMore();
  }

  // Checks every entry of revokedCertificates (content |revoked|), notes
  // where each starts and indexes its serial. RFC 5280 5.1.2.6 wants the list
  // left out when empty, but CAs publish it empty (DocuSign): that reads as
  // no entries.
  bool WalkEntries(Input revoked) {
    if (revoked.empty()) return true;
    const uint8_t* base = walk_base;
    const uint8_t* p = revoked.data();
    const size_t n = revoked.size();
    const bool v2 = version == 2;
    // Size the offsets and the index from the mean size of the first
    // entries, with an eighth more. The index is filled as the entries are
    // walked, while their bytes are in cache; if the estimate proves wrong
    // it is made again, at the right size, once the count is known.
    size_t at = 0, whole = 0, seen = 0;
    Input serial;
    while (at < n && seen < 64) {
      if (!pki::CheckEntry(p + at, n - at, v2, &whole, &serial)) return false;
      at += whole;
      ++seen;
    }
    const size_t estimate = at < n ? n / (at / seen) + n / (8 * (at / seen)) : seen;
    offsets.reserve(estimate);
    seed = pki::SeedFrom(this);
    const size_t slots = NewIndex(estimate);
    // Beyond this many entries the table would fill up: the rest are only
    // checked, and the index made again. (Entry numbers up to the slot count
    // fit the slots' |index_bits|.)
    const size_t room = slots - slots / 5;
    pki::IndexFiller filler(index.data(), slots, index_bits, room, base, offsets);
    at = 0;
    bool adding = true;
    while (at < n) {
      // The entries are read once, front to back, faster than the
      // processor's own prefetching fetches them across pages.
      platform::Prefetch(p + at + 1024);
      if (!pki::CheckEntry(p + at, n - at, v2, &whole, &serial)) return false;
      const uint32_t offset = static_cast<uint32_t>(p + at - base);
      src.CopyAlong(offset);
      offsets.push_back(offset);
      if (adding) adding = filler.Add(Hash(pki::MinimalInteger(serial)));
      at += whole;
    }
    filler.Finish();
    const size_t count = offsets.size();
    if (offsets.capacity() > count + count / 8) offsets.shrink_to_fit();
    // Too small, or more than a third too large: made again at its size.
    if (!adding || slots > 10 * (count / 3) + 64) IndexEntries();
    return true;
  }

  // Parses |input|, which is not DER, from its DER rewrite, keeping the
  // to-be-signed bytes as received.
  bool ParseBer(Input input) {
    std::vector<uint8_t> rewritten;
    if (!der::NormaliseToDer(input, &rewritten) || Input(rewritten) == input) return false;
    src.Copy(rewritten.data(), rewritten.size());
    Parser outer(input, der::Mode::kBer);
    Parser crl;
    Input tbs;
    if (!outer.ReadSequence(&crl) || !crl.ReadRawTLV(&tbs)) return false;
    received_tbs = tbs.ToVector();
    return Parse(src.view());
  }

  uint32_t Hash(Input serial) const {
    return static_cast<uint32_t>(pki::HashSerial(serial.data(), serial.size(), seed));
  }

  // Replaces the index with an empty one for |entries| entries; gives its
  // slot count.
  size_t NewIndex(size_t entries) {
    const size_t slots = 2 * entries + entries / 2 + 2;
    decltype(index) table;
    table.reserve(slots);
    table.resize(slots);  // left unset: fresh large blocks come zeroed
    if (!platform::ComesZeroed(table.capacity() * sizeof(uint32_t)))
      std::fill(table.begin(), table.end(), 0);
    index = std::move(table);
    index_bits = static_cast<unsigned>(std::bit_width(slots));
    return slots;
  }

  // Indexes the entries, already checked and counted, afresh.
  void IndexEntries() {
    decltype(index)().swap(index);
    if (offsets.empty()) return;
    const size_t slots = NewIndex(offsets.size());
    const uint8_t* const base = walk_base;
    pki::IndexFiller filler(index.data(), slots, index_bits, offsets.size(), base, offsets);
    for (const uint32_t offset : offsets)
      filler.Add(Hash(pki::MinimalInteger(pki::EntrySerial(base + offset))));
    filler.Finish();
  }

  long Find(Input serial) const {
    if (index.empty()) return -1;
    const uint32_t h = Hash(serial);
    const size_t slots = index.size();
    const uint32_t entry_mask = pki::EntryMask(index_bits);
    const uint32_t want_tag = pki::TagOf(h, index_bits);
    const uint8_t* const base = src.data();
    const uint32_t* const starts = offsets.data();
    for (size_t at = pki::HomeOf(h, slots);; at = at + 1 == slots ? 0 : at + 1) {
      const uint32_t held = index[at];
      if (held == 0) return -1;
      if ((held & ~entry_mask) != want_tag) continue;
      const uint32_t number = (held & entry_mask) - 1;
      if (pki::SameOctets(pki::MinimalInteger(pki::EntrySerial(base + starts[number])), serial))
        return static_cast<long>(number);
    }
  }
};

CertificateList::CertificateList() = default;
CertificateList::~CertificateList() = default;
CertificateList::CertificateList(CertificateList&&) noexcept = default;
CertificateList& CertificateList::operator=(CertificateList&&) noexcept = default;

CertificateList::CertificateList(const CertificateList& other) {
  if (other.impl_) {
    try {
      impl_ = std::make_unique<Impl>(*other.impl_);
    } catch (...) {
      impl_.reset();
    }
  }
}

CertificateList& CertificateList::operator=(const CertificateList& other) {
  if (this != &other) {
    CertificateList copy(other);
    impl_ = std::move(copy.impl_);
  }
  return *this;
}

namespace {

// The object for |length| bytes at |bytes|, or null when they are no CRL.
// DER is read in place, while the caller's bytes are likely still in cache;
// the object then takes them from |owner| when given (which holds them), or
// has copied them, stretch by stretch, as the walk read them.
std::unique_ptr<CertificateList::Impl> DecodeImpl(const uint8_t* bytes, size_t length,
                                                  std::vector<uint8_t>* owner) {
  auto impl = std::make_unique<CertificateList::Impl>();
  if (!owner) impl->src.StartCopy(bytes, length);
  if (impl->Parse(Input(bytes, length))) {
    if (owner) {
      impl->src.Take(owner);  // same bytes, same place: the views stay good
    } else {
      impl->src.FinishCopy();
      impl->CopyViews(*impl, bytes);
    }
  } else if (impl->ParseBer(Input(bytes, length))) {
    if (owner) std::vector<uint8_t>().swap(*owner);
  } else {
    return nullptr;
  }
  return impl;
}

}  // namespace

bool CertificateList::decode(const unsigned char* bytes, size_t length) {
  impl_.reset();
  if (!bytes || length == 0) return false;
  try {
    impl_ = DecodeImpl(bytes, length, nullptr);
  } catch (...) {
    impl_.reset();  // allocation failure on a huge input
  }
  return impl_ != nullptr;
}

bool CertificateList::decode(std::vector<unsigned char>&& der) {
  impl_.reset();
  if (der.empty()) return false;
  try {
    impl_ = DecodeImpl(der.data(), der.size(), &der);
  } catch (...) {
    impl_.reset();
  }
  return impl_ != nullptr;
}

bool CertificateList::isDecoded() const { return impl_ != nullptr; }

std::vector<unsigned char> CertificateList::encode() const {
  if (!impl_) return {};
  return std::vector<unsigned char>(impl_->src.data(), impl_->src.data() + impl_->src.size());
}

ByteView CertificateList::der() const {
  if (!impl_) return {};
  return ByteView{impl_->src.data(), impl_->src.size()};
}

using pki::EmptyName;
using pki::NoExtensions;
using pki::NoTime;

int CertificateList::version() const { return impl_ ? impl_->version : 0; }
const Name& CertificateList::issuer() const { return impl_ ? impl_->issuer : EmptyName(); }
const X500Time& CertificateList::thisUpdate() const {
  return impl_ ? impl_->this_update : NoTime();
}
bool CertificateList::hasNextUpdate() const { return impl_ && impl_->has_next_update; }
const X500Time& CertificateList::nextUpdate() const {
  return impl_ && impl_->has_next_update ? impl_->next_update : NoTime();
}

ByteView CertificateList::tbsCertList() const {
  if (!impl_) return {};
  if (!impl_->received_tbs.empty())
    return ByteView{impl_->received_tbs.data(), impl_->received_tbs.size()};
  return pki::ToView(impl_->tbs);
}
ByteView CertificateList::signatureAlgorithm() const {
  return impl_ ? pki::ToView(impl_->sig_alg) : ByteView{};
}
ByteView CertificateList::signatureValue() const {
  return impl_ ? pki::ToView(impl_->sig_value) : ByteView{};
}
ByteView CertificateList::issuerBytes() const {
  return impl_ ? pki::ToView(impl_->issuer_raw) : ByteView{};
}

size_t CertificateList::entryCount() const { return impl_ ? impl_->EntryCount() : 0; }

// Entry ::= SEQUENCE { userCertificate CertificateSerialNumber,
//   revocationDate Time, crlEntryExtensions Extensions OPTIONAL }
// CRLReason ::= ENUMERATED { unspecified (0), keyCompromise (1),
//   cACompromise (2), affiliationChanged (3), superseded (4),
//   cessationOfOperation (5), certificateHold (6), -- value 7 is not used
//   removeFromCRL (8), privilegeWithdrawn (9), aACompromise (10) }
// InvalidityDate ::= GeneralizedTime (UTCTime read too).
bool CertificateList::entry(size_t index, CRLEntry* out) const {
  if (!impl_ || !out || index >= impl_->EntryCount()) return false;
  try {
    Parser outer(impl_->Entry(index));
    Parser seq;
    Input serial;
    CRLEntry e;
    if (!outer.ReadSequence(&seq) || !pki::ReadSerial(&seq, &serial) ||
        !e.serialNumber.fromDerContent(serial.data(), serial.size()) ||
        !pki::ReadTime(&seq, &e.revocationDate))
      return false;
    if (seq.HasMore()) {
      Input exts;
      if (!seq.Read(der::kSequence, &exts) || seq.HasMore() ||
          !pki::ParseExtensions(exts, &e.extensions))
        return false;
    }
    for (const Extension& x : e.extensions) {
      // Values are read leniently: a non-minimal ENUMERATED still says what it means.
      Parser value(Input(x.value), der::Mode::kBer);
      if (x.oid == "2.5.29.21") {
        // The entry is revoked whatever its reason says: a value that is none
        // of the above (7, or above 10) names no reason, and the entry reads
        // as one without a reason rather than failing.
        uint64_t reason = 0;
        if (!value.ReadEnumerated(&reason) || value.HasMore()) return false;
        e.reasonCode = reason <= 10 && reason != 7 ? static_cast<int>(reason) : -1;
      } else if (x.oid == "2.5.29.24") {
        if (!pki::ReadTime(&value, &e.invalidityDate) || value.HasMore()) return false;
        e.hasInvalidityDate = true;
      }
    }
    *out = std::move(e);
    return true;
  } catch (...) {
    return false;
  }
}

std::string CertificateList::entrySerialText(size_t index) const {
  if (!impl_ || index >= impl_->EntryCount()) return {};
  const Input serial = pki::EntrySerial(impl_->Entry(index).data());
  BigInteger value;
  if (!value.fromDerContent(serial.data(), serial.size())) return {};
  return value.toHex();
}

long CertificateList::findSerial(const char* serialText) const {
  if (!impl_ || !serialText) return -1;
  try {
    // Serials are at most 20 octets (RFC 5280 4.1.2.2), though longer ones
    // are looked up too.
    const size_t length = std::strlen(serialText);
    uint8_t local[64];
    std::vector<uint8_t> heap;
    uint8_t* buffer = local;
    if (length / 2 + 1 > sizeof local) {
      heap.resize(length / 2 + 1);
      buffer = heap.data();
    }
    Input content;
    if (!pki::SerialTextToContent(serialText, length, buffer, &content)) return -1;
    return impl_->Find(content);
  } catch (...) {
    return -1;
  }
}

// Decoding builds the index, while it walks the entries.
void CertificateList::buildIndex() const {}

const std::vector<Extension>& CertificateList::extensions() const {
  return impl_ ? impl_->extensions : NoExtensions();
}

const Extension* CertificateList::extension(const char* oid) const {
  return impl_ ? pki::FindExtension(impl_->extensions, oid) : nullptr;
}

bool CertificateList::authorityKeyIdentifier(AuthorityKeyIdentifier* out) const {
  const Extension* e = extension("2.5.29.35");
  return e && out && out->decode(e->value.data(), e->value.size());
}

// IssuingDistributionPoint ::= SEQUENCE {
//   distributionPoint          [0] DistributionPointName OPTIONAL,
//   onlyContainsUserCerts      [1] BOOLEAN DEFAULT FALSE,
//   onlyContainsCACerts        [2] BOOLEAN DEFAULT FALSE,
//   onlySomeReasons            [3] ReasonFlags OPTIONAL,
//   indirectCRL                [4] BOOLEAN DEFAULT FALSE,
//   onlyContainsAttributeCerts [5] BOOLEAN DEFAULT FALSE }
// -- at most one of onlyContainsUserCerts, onlyContainsCACerts and
// -- onlyContainsAttributeCerts may be TRUE (RFC 5280 5.2.5); an empty
// -- SEQUENCE is not allowed.
// The module has IMPLICIT TAGS, so [0] is explicit around the CHOICE and the
// others replace the BOOLEAN and BIT STRING tags.
bool CertificateList::issuingDistributionPoint(IssuingDistributionPoint* out) const {
  const Extension* e = extension("2.5.29.28");
  if (!e || !out) return false;
  try {
    Parser outer(Input(e->value), der::Mode::kBer);
    Parser seq;
    if (!outer.ReadSequence(&seq) || outer.HasMore() || !seq.HasMore()) return false;
    IssuingDistributionPoint idp;
    Parser dp;
    bool present = false;
    if (!seq.ReadOptionalConstructed(der::ContextSpecificConstructed(0), &dp, &present))
      return false;
    if (present) {
      Input choice;
      if (!dp.ReadRawTLV(&choice) || dp.HasMore() ||
          !idp.distributionPoint.decode(choice.data(), choice.size()))
        return false;
      idp.hasDistributionPoint = true;
    }
    const auto flag = [&seq](uint32_t number, bool* value) {
      Input v;
      bool here = false;
      if (!seq.ReadOptional(der::ContextSpecific(number), &v, &here)) return false;
      if (here) {
        if (v.size() != 1) return false;
        *value = v[0] != 0;
      }
      return true;
    };
    if (!flag(1, &idp.onlyContainsUserCerts) || !flag(2, &idp.onlyContainsCACerts)) return false;
    // ReasonFlags ::= BIT STRING; bit n of the string is bit n of the mask.
    Input reasons;
    if (!seq.ReadOptional(der::ContextSpecific(3), &reasons, &present)) return false;
    if (present) {
      if (reasons.empty() || reasons[0] > 7 || (reasons.size() == 1 && reasons[0] != 0))
        return false;
      for (size_t i = 1; i < reasons.size() && i < 3; ++i) {
        for (int b = 0; b < 8; ++b) {
          if (reasons[i] & (0x80 >> b)) idp.onlySomeReasons |= 1u << ((i - 1) * 8 + b);
        }
      }
      idp.hasOnlySomeReasons = true;
    }
    if (!flag(4, &idp.indirectCRL) || !flag(5, &idp.onlyContainsAttributeCerts) || seq.HasMore())
      return false;
    const int only = int{idp.onlyContainsUserCerts} + int{idp.onlyContainsCACerts} +
                     int{idp.onlyContainsAttributeCerts};
    if (only > 1) return false;
    *out = std::move(idp);
    return true;
  } catch (...) {
    return false;
  }
}

// ExpiredCertsOnCRL ::= GeneralizedTime. Some CAs write a UTCTime; it is
// read as such rather than dropped.
bool CertificateList::expiredCertsOnCRL(X500Time* out) const {
  const Extension* e = extension("2.5.29.60");
  if (!e || !out) return false;
  Parser p(Input(e->value), der::Mode::kBer);
  X500Time t;
  if (!pki::ReadTime(&p, &t) || p.HasMore()) return false;
  *out = t;
  return true;
}

// CRLNumber ::= INTEGER (0..MAX)
bool CertificateList::crlNumber(BigInteger* out) const {
  const Extension* e = extension("2.5.29.20");
  if (!e || !out) return false;
  try {
    return out->decode(e->value.data(), e->value.size());
  } catch (...) {
    return false;
  }
}

size_t CertificateList::memoryUsage() const {
  if (!impl_) return sizeof(*this);
  const Impl& m = *impl_;
  size_t total = sizeof(*this) + sizeof(Impl) + m.src.footprint() +
                 m.received_tbs.capacity() + m.offsets.capacity() * sizeof(uint32_t) +
                 platform::LargeFootprint(m.index.capacity() * sizeof(uint32_t));
  for (const Extension& e : m.extensions)
    total += sizeof(e) + e.oid.capacity() + e.value.capacity();
  for (const Name::RDN& rdn : m.issuer.rdns()) {
    for (const Name::Attribute& a : rdn)
      total += sizeof(a) + a.type.capacity() + a.value.capacity();
  }
  return total;
}

bool CertificateList::operator==(const CertificateList& other) const {
  if (!impl_ || !other.impl_) return !impl_ && !other.impl_;
  return impl_->src.view() == other.impl_->src.view();
}
