#include "secrets.h"

#include <cstddef>
#include <cstring>

#include "words.h"

namespace ctm {
namespace {

// Where a secret begins, and the characters that end it.
constexpr char kMarkers[] =
    "Cookie: \0"
    "\r\n\0"  // Set-Cookie as well
    "JSESSIONID=\0"
    ";\r\n\" \0"  // outside such a line
    "Sec-WebSocket-Key: \0"
    "\r\n\0"
    "\"tokenID\":\"\0"
    "\"\0"
    "\"tokenID\": \"\0"
    "\"\0";
constexpr char kBlank[] = "***";
constexpr size_t kBlankSize = sizeof kBlank - 1;

void blank_all(char *text, const char *begin, const char *end) {
    while ((text = strcasestr(text, begin))) {
        text += strlen(begin);
        const size_t length = strcspn(text, end);
        const size_t kept = length < kBlankSize ? length : kBlankSize;
        memcpy(text, kBlank, kept);
        memmove(text + kept, text + length, strlen(text + length) + 1);
        text += kept;
    }
}

}  // namespace

void secrets_blank(char *text) {
    for (const char *marker = kMarkers; *marker; marker = word_at(marker, 2))
        blank_all(text, marker, word_at(marker, 1));
}

}  // namespace ctm
