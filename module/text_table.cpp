#include "text_table.h"

#include <cstring>

namespace ctm {

const char *text_at(const char *table, size_t index) {
    for (; index > 0; index--) table += strlen(table) + 1;
    return table;
}

}  // namespace ctm
