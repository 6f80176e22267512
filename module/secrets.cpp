#include "secrets.h"

#include <cstddef>
#include <cstring>

#include "text_table.h"

namespace ctm {
namespace {

// Pairs: the text before a secret, and the characters that end the secret.
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
    "\"\0"
    "token \0"  // as libcloudtunnel logs what the daemon and the platform send
    " \r\n\0"
    " cookie \0"
    "\r\n\0"
    "set-cookie \0"
    "\r\n\0"
    "] detail [\0"
    "\0";
constexpr char kBlank[] = "***";

void blank_all(char *text, const char *begin, const char *end) {
    while ((text = strcasestr(text, begin))) {
        text += strlen(begin);
        const char *rest = text;
        while (!strchr(end, *rest)) rest++;  // or the end of the text
        for (const char *blank = kBlank; *blank && text < rest;) *text++ = *blank++;
        for (char *to = text; (*to++ = *rest++);) {
        }
    }
}

}  // namespace

void secrets_blank(char *text) {
    for (const char *marker = kMarkers; *marker; marker = text_at(marker, 2))
        blank_all(text, marker, text_at(marker, 1));
}

}  // namespace ctm
