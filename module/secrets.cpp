#include "secrets.h"

#include <strings.h>
#include <cstddef>
#include <cstring>

namespace ctm {
namespace {

// Where a secret begins, and what ends it.
struct Marker {
    const char *begin;
    const char *end;
};
constexpr Marker kMarkers[] = {
    {"Cookie: ", "\r\n"},         // Set-Cookie as well
    {"JSESSIONID=", ";\r\n\" "},  // outside such a line
    {"Sec-WebSocket-Key: ", "\r\n"},
    {"\"tokenID\":\"", "\""},
    {"\"tokenID\": \"", "\""},
};
constexpr char kBlank[] = "***";
constexpr size_t kBlankSize = sizeof kBlank - 1;

char *find(char *text, const char *what) {
    const size_t size = strlen(what);
    for (; *text; text++) {
        if (strncasecmp(text, what, size) == 0) return text;
    }
    return nullptr;
}

void blank_all(char *text, const Marker &marker) {
    while ((text = find(text, marker.begin))) {
        text += strlen(marker.begin);
        const size_t length = strcspn(text, marker.end);
        const size_t kept = length < kBlankSize ? length : kBlankSize;
        memcpy(text, kBlank, kept);
        memmove(text + kept, text + length, strlen(text + length) + 1);
        text += kept;
    }
}

}  // namespace

void secrets_blank(char *text) {
    for (const Marker &marker : kMarkers) blank_all(text, marker);
}

}  // namespace ctm
