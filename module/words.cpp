#include "words.h"

#include <cstring>

namespace ctm {

const char *word_at(const char *words, size_t index) {
    for (; index > 0; index--) words += strlen(words) + 1;
    return words;
}

}  // namespace ctm
