#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

// The bytes that end a plain run of a JSON string when it is read are those that need an escape when it is
// written. Internal to this folder.
namespace zn::detail {

constexpr std::uint64_t repeated(unsigned char byte) {
    return 0x0101010101010101u * byte;
}

/// The high bit of every byte of `word` that is a quote, a backslash or below 0x20. Bytes above the lowest
/// one so marked may be marked wrongly, by the borrow.
inline std::uint64_t specialBytes(std::uint64_t word) {
    const std::uint64_t quotes = word ^ repeated('"');
    const std::uint64_t slashes = word ^ repeated('\\');
    return (((word - repeated(0x20)) & ~word) | ((quotes - repeated(1)) & ~quotes) |
            ((slashes - repeated(1)) & ~slashes)) &
           repeated(0x80);
}

#ifdef __SSE2__
/// One bit for every such byte.
inline unsigned specialBytes(__m128i bytes) {
    const __m128i isControl = _mm_cmpeq_epi8(_mm_min_epu8(bytes, _mm_set1_epi8(0x1F)), bytes);
    const __m128i isQuote = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'));
    const __m128i isSlash = _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'));
    return static_cast<unsigned>(_mm_movemask_epi8(_mm_or_si128(isControl, _mm_or_si128(isQuote, isSlash))));
}
#endif

/// The index of the first byte, from `at` on, that ends a run of plain string bytes; the size without one.
inline std::size_t plainRunEnd(std::string_view text, std::size_t at) {
    static_assert(std::endian::native == std::endian::little, "the first byte is taken to be the lowest one");
#ifdef __SSE2__
    for (; text.size() - at >= sizeof(__m128i); at += sizeof(__m128i)) {
        if (const unsigned marks = specialBytes(_mm_loadu_si128(reinterpret_cast<const __m128i*>(text.data() + at))))
            return at + static_cast<std::size_t>(std::countr_zero(marks));
    }
#endif
    std::uint64_t word;
    for (; text.size() - at >= sizeof(word); at += sizeof(word)) {
        std::memcpy(&word, text.data() + at, sizeof(word));
        if (const std::uint64_t marks = specialBytes(word); marks != 0)
            return at + static_cast<std::size_t>(std::countr_zero(marks)) / 8;
    }
    while (at < text.size() && text[at] != '"' && text[at] != '\\' && static_cast<unsigned char>(text[at]) >= 0x20)
        ++at;
    return at;
}

/// The white space of JSON texts, which is that of the C locale.
inline bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

/// Behind the bare token that runs up to `at` at least.
inline std::size_t tokenEnd(std::string_view text, std::size_t at) {
    while (at < text.size() && text[at] != ',' && text[at] != ']' && text[at] != '}' && !isSpace(text[at]))
        ++at;
    return at;
}

} // namespace zn::detail
