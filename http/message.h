// The fixed names of HTTP that requests are written with and responses are read by.
#pragma once

#include <cstdint>
#include <span>

// A status line that the reader knows. The response record takes over a whole entry.
struct HttpStatus {
    uint32_t index;
    int32_t code;
    const char *text;
};

// http_method_name and http_version_name return the name at an index of the tables; null outside.
const char *http_method_name(uint32_t index);
const char *http_version_name(uint32_t index);

// http_statuses returns the known statuses, in the order in which they are looked for.
std::span<const HttpStatus> http_statuses();
