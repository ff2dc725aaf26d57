/*
 * The built-in converters: UTF-8, UTF-16LE/BE, US-ASCII and ISO-8859-1.
 *
 * Each conversion reserves its worst-case output once, writes through a raw pointer and only
 * then commits the new size, so a failure leaves the caller's buffer as it was. Runs of ASCII
 * are handled 16 bytes per step (8 where SSE2 is not available).
 */
#include "codesetBuiltin.h"

#include <string.h>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "codeset.h"
#include "internal/utf.h"

namespace {

constexpr uint8_t kAsciiSubstitute = 0x1A;

using tesmar::utf::DecodeUtf8;
using tesmar::utf::EncodeUtf8;
using tesmar::utf::kReplacement;

template <bool kBigEndian>
uint8_t *PutUnit(uint8_t *o, uint32_t unit)
{
   o[kBigEndian ? 1 : 0] = (uint8_t)unit;
   o[kBigEndian ? 0 : 1] = (uint8_t)(unit >> 8);
   return o + 2;
}

uint8_t *PutUtf16Le(uint8_t *o, uint32_t cp)
{
   uint32_t units[2];
   int count = tesmar::utf::EncodeUtf16(cp, units);
   for (int k = 0; k < count; k++) {
      o = PutUnit<false>(o, units[k]);
   }
   return o;
}

template <bool kBigEndian>
uint32_t GetUnit(const uint8_t *p)
{
   return kBigEndian ? (uint32_t)p[0] << 8 | p[1] : (uint32_t)p[1] << 8 | p[0];
}

/* Length of the run of ASCII bytes at the start of s (checked a block at a time). */
size_t AsciiPrefix(const uint8_t *s, size_t n)
{
   size_t i = 0;
#if defined(__SSE2__)
   for (; i + 16 <= n; i += 16) {
      __m128i v = _mm_loadu_si128((const __m128i *)(s + i));
      if (_mm_movemask_epi8(v) != 0) {
         break;
      }
   }
#else
   for (; i + 8 <= n; i += 8) {
      uint64_t w;
      memcpy(&w, s + i, 8);
      if ((w & 0x8080808080808080ull) != 0) {
         break;
      }
   }
#endif
   while (i < n && s[i] < 0x80) {
      i++;
   }
   return i;
}

/* Copies the run of ASCII bytes at the start of s to *o and moves *o past it; returns its length.
 */
size_t CopyAscii(const uint8_t *s, size_t n, uint8_t **o)
{
   size_t run = AsciiPrefix(s, n);
   memcpy(*o, s, run);
   *o += run;
   return run;
}

/*
 * Widens ASCII bytes to UTF-16LE units while they last; returns how many input bytes it
 * consumed (a multiple of the block size, possibly 0).
 */
size_t WidenAsciiBlocks(const uint8_t *s, size_t n, uint8_t *o)
{
   size_t i = 0;
#if defined(__SSE2__)
   const __m128i zero = _mm_setzero_si128();
   for (; i + 16 <= n; i += 16) {
      __m128i v = _mm_loadu_si128((const __m128i *)(s + i));
      if (_mm_movemask_epi8(v) != 0) {
         break;
      }
      _mm_storeu_si128((__m128i *)(o + 2 * i), _mm_unpacklo_epi8(v, zero));
      _mm_storeu_si128((__m128i *)(o + 2 * i + 16), _mm_unpackhi_epi8(v, zero));
   }
#else
   for (; i + 8 <= n; i += 8) {
      uint64_t w;
      memcpy(&w, s + i, 8);
      if ((w & 0x8080808080808080ull) != 0) {
         break;
      }
      for (size_t k = 0; k < 8; k++) {
         o[2 * (i + k)] = s[i + k];
         o[2 * (i + k) + 1] = 0;
      }
   }
#endif
   return i;
}

/*
 * Narrows UTF-16 units below 0x80 to bytes while they last; returns how many units it
 * consumed (a multiple of 8, possibly 0).
 */
template <bool kBigEndian>
size_t NarrowAsciiBlocks(const uint8_t *s, size_t units, uint8_t *o)
{
   size_t i = 0;
#if defined(__SSE2__)
   const __m128i high = _mm_set1_epi16((short)(kBigEndian ? 0x80FF : 0xFF80));
   const __m128i zero = _mm_setzero_si128();
   for (; i + 8 <= units; i += 8) {
      __m128i v = _mm_loadu_si128((const __m128i *)(s + 2 * i));
      if (_mm_movemask_epi8(_mm_cmpeq_epi16(_mm_and_si128(v, high), zero)) != 0xFFFF) {
         break;
      }
      if (kBigEndian) {
         v = _mm_srli_epi16(v, 8);
      }
      _mm_storel_epi64((__m128i *)(o + i), _mm_packus_epi16(v, v));
   }
#else
   (void)s;
   (void)units;
   (void)o;
#endif
   return i;
}

/*
 * Room for n units of at most `per` bytes each after the buffer's end, or NULL. Four bytes
 * more are reserved so that a heap result's terminator does not make the buffer grow again.
 */
uint8_t *Reserve(DynBuf *db, size_t n, size_t per)
{
   constexpr size_t kTerminator = 4;
   size_t extra = n * per;
   if (per != 0 && extra / per != n) {
      return nullptr;
   }
   size_t want = db->size + extra + kTerminator;
   if (want < db->size + kTerminator || !DynBuf_Enlarge(db, want)) {
      return nullptr;
   }
   return (uint8_t *)db->data + db->size;
}

void Commit(DynBuf *db, const uint8_t *end)
{
   db->size = (size_t)(end - (const uint8_t *)db->data);
}

/* UTF-8 to UTF-16LE: anything ill-formed (surrogates and values past U+10FFFF too) fails. */
bool Utf8ToUtf16Le(const uint8_t *s, size_t n, DynBuf *db)
{
   uint8_t *o = Reserve(db, n, 2);
   if (o == nullptr) {
      return false;
   }
   size_t i = 0;
   while (i < n) {
      size_t run = WidenAsciiBlocks(s + i, n - i, o);
      i += run;
      o += 2 * run;
      /* The ASCII bytes before the next non-ASCII one, which the block step left over. */
      while (i < n && s[i] < 0x80) {
         o = PutUnit<false>(o, s[i]);
         i++;
      }
      if (i >= n) {
         break;
      }
      uint32_t cp;
      int len = DecodeUtf8(s + i, n - i, &cp, false);
      if (len <= 0) {
         return false;
      }
      o = PutUtf16Le(o, cp);
      i += (size_t)len;
   }
   Commit(db, o);
   return true;
}

/* UTF-8 to US-ASCII: each non-ASCII character (or undecodable byte) fails, becomes 0x1A, or
 * is dropped. */
bool Utf8ToAscii(const uint8_t *s, size_t n, int policy, DynBuf *db)
{
   uint8_t *o = Reserve(db, n, 1);
   if (o == nullptr) {
      return false;
   }
   size_t i = 0;
   while (i < n) {
      i += CopyAscii(s + i, n - i, &o);
      if (i >= n) {
         break;
      }
      if (policy == CODESET_POLICY_NORMAL) {
         return false;
      }
      if (policy == CODESET_POLICY_SUBSTITUTE) {
         *o++ = kAsciiSubstitute;
      }
      uint32_t cp;
      int len = DecodeUtf8(s + i, n - i, &cp, true);
      i += len > 0 ? (size_t)len : 1;
   }
   Commit(db, o);
   return true;
}

/* UTF-16 to UTF-8: an odd length or an unpaired surrogate fails. */
template <bool kBigEndian>
bool Utf16ToUtf8(const uint8_t *s, size_t n, DynBuf *db)
{
   if (n % 2 != 0) {
      return false;
   }
   size_t units = n / 2;
   /* A unit needs at most 3 bytes; a pair (two units) 4. */
   uint8_t *o = Reserve(db, units, 3);
   if (o == nullptr) {
      return false;
   }
   size_t i = 0;
   while (i < units) {
      size_t run = NarrowAsciiBlocks<kBigEndian>(s + 2 * i, units - i, o);
      i += run;
      o += run;
      if (i >= units) {
         break;
      }
      bool hasSecond = i + 1 < units;
      uint32_t cp;
      int used = tesmar::utf::DecodeUtf16(GetUnit<kBigEndian>(s + 2 * i),
                                          hasSecond ? GetUnit<kBigEndian>(s + 2 * i + 2) : 0,
                                          hasSecond, &cp);
      if (used == 0) {
         return false;
      }
      o = EncodeUtf8(cp, o);
      i += (size_t)used;
   }
   Commit(db, o);
   return true;
}

/* US-ASCII (every byte above 0x7F becomes U+FFFD) or ISO-8859-1 to UTF-8. */
template <bool kLatin1>
bool SingleByteToUtf8(const uint8_t *s, size_t n, DynBuf *db)
{
   uint8_t *o = Reserve(db, n, kLatin1 ? 2 : 3);
   if (o == nullptr) {
      return false;
   }
   size_t i = 0;
   while (i < n) {
      i += CopyAscii(s + i, n - i, &o);
      if (i < n) {
         o = EncodeUtf8(kLatin1 ? s[i] : kReplacement, o);
         i++;
      }
   }
   Commit(db, o);
   return true;
}

bool CopyBytes(const char *buf, size_t size, DynBuf *db)
{
   return DynBuf_Append(db, buf, size);
}

}  // namespace

bool CodeSetIsValidUtf8(const char *buf, size_t size)
{
   const uint8_t *s = (const uint8_t *)buf;
   size_t i = 0;
   while (i < size) {
      i += AsciiPrefix(s + i, size - i);
      if (i >= size) {
         break;
      }
      uint32_t cp;
      int len = DecodeUtf8(s + i, size - i, &cp, false);
      if (len <= 0) {
         return false;
      }
      i += (size_t)len;
   }
   return true;
}

bool CodeSetIsValidUtf16(const char *buf, size_t size, bool bigEndian)
{
   if (size % 2 != 0) {
      return false;
   }
   const uint8_t *s = (const uint8_t *)buf;
   size_t units = size / 2;
   auto unitAt = [&](size_t i) {
      return bigEndian ? GetUnit<true>(s + 2 * i) : GetUnit<false>(s + 2 * i);
   };
   for (size_t i = 0; i < units;) {
      bool hasSecond = i + 1 < units;
      uint32_t cp;
      int used = tesmar::utf::DecodeUtf16(unitAt(i), hasSecond ? unitAt(i + 1) : 0, hasSecond, &cp);
      if (used == 0) {
         return false;
      }
      i += (size_t)used;
   }
   return true;
}

bool CodeSetBuiltinHandles(StringEncoding from, StringEncoding to)
{
   if (from == to) {
      return from == STRING_ENCODING_UTF8 || from == STRING_ENCODING_UTF16_LE ||
             from == STRING_ENCODING_UTF16_BE || from == STRING_ENCODING_US_ASCII ||
             from == STRING_ENCODING_ISO_8859_1;
   }
   if (from == STRING_ENCODING_UTF8) {
      return to == STRING_ENCODING_UTF16_LE || to == STRING_ENCODING_US_ASCII;
   }
   if (to == STRING_ENCODING_UTF8) {
      return from == STRING_ENCODING_UTF16_LE || from == STRING_ENCODING_UTF16_BE ||
             from == STRING_ENCODING_US_ASCII || from == STRING_ENCODING_ISO_8859_1;
   }
   return false;
}

bool CodeSetBuiltinConvert(StringEncoding from, StringEncoding to, const char *buf, size_t size,
                           int policy, DynBuf *db)
{
   const uint8_t *s = (const uint8_t *)buf;
   if (from == to) {
      switch (from) {
         case STRING_ENCODING_UTF8:
            return CodeSetIsValidUtf8(buf, size) && CopyBytes(buf, size, db);
         case STRING_ENCODING_UTF16_LE:
         case STRING_ENCODING_UTF16_BE:
            return CodeSetIsValidUtf16(buf, size, from == STRING_ENCODING_UTF16_BE) &&
                   CopyBytes(buf, size, db);
         case STRING_ENCODING_US_ASCII:
            return AsciiPrefix(s, size) == size && CopyBytes(buf, size, db);
         case STRING_ENCODING_ISO_8859_1:
            return CopyBytes(buf, size, db);
         default:
            return false;
      }
   }
   if (from == STRING_ENCODING_UTF8 && to == STRING_ENCODING_UTF16_LE) {
      return Utf8ToUtf16Le(s, size, db);
   }
   if (from == STRING_ENCODING_UTF8 && to == STRING_ENCODING_US_ASCII) {
      return Utf8ToAscii(s, size, policy, db);
   }
   if (to != STRING_ENCODING_UTF8) {
      return false;
   }
   switch (from) {
      case STRING_ENCODING_UTF16_LE:
         return Utf16ToUtf8<false>(s, size, db);
      case STRING_ENCODING_UTF16_BE:
         return Utf16ToUtf8<true>(s, size, db);
      case STRING_ENCODING_US_ASCII:
         return SingleByteToUtf8<false>(s, size, db);
      case STRING_ENCODING_ISO_8859_1:
         return SingleByteToUtf8<true>(s, size, db);
      default:
         return false;
   }
}
