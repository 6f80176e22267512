// Tables of texts without pointers, each of which would need a relocation when the library is loaded. The texts follow
// one another, each with a zero byte at its end.
#pragma once

#include <cstddef>

#pragma GCC visibility push(hidden)
namespace ctm {

// text_at returns the text at `index`, which must be below the table's text_count.
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
