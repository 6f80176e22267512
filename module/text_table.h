// Tables of texts without pointers, which would have to be relocated when the library is loaded: the texts stand one
// behind the other, each ended by a zero byte.
#pragma once

#include <cstddef>

#pragma GCC visibility push(hidden)
namespace ctm {

// text_at returns the text at `index`; the caller knows that there is one.
const char *text_at(const char *table, size_t index);

// text_count counts the texts of a table, whose last zero byte is the compiler's own.
template <size_t Size>
consteval size_t text_count(const char (&table)[Size]) {
    size_t count = 0;
    for (const char c : table) count += c == '\0';
    return count;
}

}  // namespace ctm
#pragma GCC visibility pop
