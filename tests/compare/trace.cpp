#include "tests/compare/trace.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <sys/mman.h>

#include "tests/compare/world.h"

namespace compare {

Trace *trace = nullptr;
int depth = 0;

namespace {

constexpr size_t kWhole = 400;  // bytes shown in full
constexpr size_t kHead = 100;   // bytes shown of more

void escape(std::string &to, std::string_view bytes) {
    for (const char c : bytes) {
        if (c >= ' ' && c <= '~' && c != '\\') {
            to += c;
            continue;
        }
        char hex[8];
        snprintf(hex, sizeof hex, "\\%02x", static_cast<unsigned char>(c));
        to += hex;
    }
}

}  // namespace

Trace::Trace() {
    void *const room = mmap(nullptr, kRoom, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (room == MAP_FAILED) {
        perror("compare: mmap");
        exit(2);
    }
    length_ = static_cast<size_t *>(room);
    text_ = reinterpret_cast<char *>(length_ + 1);
    clear();
}

void Trace::add(std::string_view text) {
    if (text.size() > kRoom - sizeof *length_ - *length_) return;
    memcpy(text_ + *length_, text.data(), text.size());
    *length_ += text.size();
}

void line(const char *format, ...) {
    const Outside outside;
    char *text = nullptr;
    va_list args;
    va_start(args, format);
    const int length = vasprintf(&text, format, args);
    va_end(args);
    if (length < 0) abort();
    for (int i = 0; i < depth; ++i) trace->add("  ");
    trace->add({text, static_cast<size_t>(length)});
    trace->add("\n");
    free(text);
}

std::string shown(std::string_view bytes) {
    std::string text = "\"";
    escape(text, bytes.size() > kWhole ? bytes.substr(0, kHead) : bytes);
    text += '"';
    if (bytes.size() <= kWhole) return text;
    uint64_t hash = 0xcbf29ce484222325;  // FNV-1a
    for (const char c : bytes) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
    char rest[64];
    snprintf(rest, sizeof rest, "... %zu bytes, hash %016llx", bytes.size(), static_cast<unsigned long long>(hash));
    return text + rest;
}

std::string shown(const char *text) { return text ? shown(std::string_view(text)) : "null"; }

}  // namespace compare
