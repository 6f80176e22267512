#include "base/os.h"

#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kSmallBlock = 1024;

// White space in the "C" locale, whatever the process has set.
bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

void *os_alloc(size_t size) {
    // The C library serves small blocks from a cache of the thread in malloc, but not in calloc.
    if (size >= kSmallBlock) return calloc(1, size);
    void *block = os_alloc_bytes(size);
    if (!block) return nullptr;
    // One byte at least. With the same size for both, the compiler would make a calloc of malloc and memset.
    *static_cast<char *>(block) = '\0';
    return memset(block, 0, size);
}

void *os_alloc_bytes(size_t size) { return malloc(size ? size : 1); }

void os_free(void *block) { free(block); }

char *os_strdup(const char *text) { return os_strndup(text, PTRDIFF_MAX); }

char *os_strndup(const char *text, size_t max) {
    if (!text) return nullptr;
    const size_t len = strnlen(text, max);
    auto *copy = static_cast<char *>(os_alloc(len + 1));
    if (copy) memcpy(copy, text, len);
    return copy;
}

bool os_replace(char **field, const char *text) {
    char *copy = os_strdup(text);
    os_free(*field);
    *field = copy;
    return copy != nullptr;
}

void os_strlcpy(char *to, const char *from, size_t size) {
    if (!to || size == 0) return;
    if (!from) from = "";
    const size_t len = strnlen(from, size - 1);
    memmove(to, from, len);
    to[len] = '\0';
}

int os_snprintf(char *to, size_t size, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int len = vsnprintf(to, size, format, args);
    va_end(args);
    return len;
}

size_t os_strlen(const char *text) { return text ? strlen(text) : 0; }

int os_strcmp(const char *a, const char *b) { return a && b ? strcmp(a, b) : -1; }

void os_strltrim(char *text) {
    const char *from = text;
    while (is_space(*from)) from++;
    memmove(text, from, strlen(from) + 1);
}

void os_strrtrim(char *text) {
    size_t len = strlen(text);
    while (len && is_space(text[len - 1])) len--;
    text[len] = '\0';
}

ptrdiff_t os_datapos(const void *data, size_t len, const void *what, size_t what_len) {
    const auto *found = static_cast<const uint8_t *>(memmem(data, len, what, what_len));
    return found ? found - static_cast<const uint8_t *>(data) : -1;
}

uint8_t *os_memcat(const void *a, size_t len_a, const void *b, size_t len_b) {
    size_t len = 0;
    if (__builtin_add_overflow(len_a, len_b, &len)) return nullptr;
    auto *both = static_cast<uint8_t *>(os_alloc_bytes(len));
    if (!both) return nullptr;
    if (len_a) memcpy(both, a, len_a);
    if (len_b) memcpy(both + len_a, b, len_b);
    return both;
}

int os_getcommand(const char *command, char *out, size_t size) {
    out[0] = '\0';
    FILE *pipe = popen(command, "r");
    if (!pipe) return -1;
    const size_t len = fread(out, 1, size - 1, pipe);
    pclose(pipe);
    out[len] = '\0';
    while (*out && *out != '\r' && *out != '\n') out++;
    *out = '\0';
    return 0;
}

int os_atoi(const char *text, size_t len) {
    const char *end = text + len;
    while (text < end && is_space(*text)) text++;
    const bool negative = text < end && *text == '-';
    if (negative || (text < end && *text == '+')) text++;
    int64_t value = 0;
    for (; text < end && *text >= '0' && *text <= '9'; text++) {
        value = value * 10 + (*text - '0');
        if (value > INT_MAX) return negative ? INT_MIN : INT_MAX;
    }
    return static_cast<int>(negative ? -value : value);
}

bool os_asctime(const struct tm &date, char (&text)[kAsctimeSize]) {
    text[0] = '\0';
    if (date.tm_year < -1900 || date.tm_year > 9999 - 1900) return false;
    return asctime_r(&date, text) != nullptr;
}
