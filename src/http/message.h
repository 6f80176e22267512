// The fixed names of HTTP that requests are written with and responses are read by.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iterator>

// Each row is a text, not a pointer to one: pointers would have to be relocated when the library is loaded.
// The last method is CONNECT and an end marker written as one word. The platform knows it so.
inline constexpr char kHttpMethods[][11] = {"NONE",   "GET",     "POST",  "HEAD",      "PUT",
                                            "DELETE", "OPTIONS", "TRACE", "CONNECTMAX"};
inline constexpr char kHttpVersions[][5] = {"NONE", "1.0", "1.1", "2.0", "MAX"};

// http_method_name and http_version_name return the name at an index of the tables; null outside.
inline const char *http_method_name(uint32_t index) {
    return index < std::size(kHttpMethods) ? kHttpMethods[index] : nullptr;
}
inline const char *http_version_name(uint32_t index) {
    return index < std::size(kHttpVersions) ? kHttpVersions[index] : nullptr;
}

// The statuses that the reader knows, in the order in which it looks for them, up to an empty one. The status index of
// a response is the position in this list, its status code the number at the beginning of the text.
inline constexpr char kHttpStatuses[] =
    "100 Continue\0"
    "101 Switching Protocols\0"
    "200 OK\0"
    "201 Created\0"
    "202 Accepted\0"
    "203 Non-Authoritative Information\0"
    "204 No Content\0"
    "205 Reset Content\0"
    "206 Partial Content\0"
    "300 Multiple Choices\0"
    "301 Moved Permanently\0"
    "302 Found\0"
    "303 See Other\0"
    "304 Not Modified\0"
    "305 Use Proxy\0"
    "307 Temporary Redirect\0"
    "400 Bad Request\0"
    "401 Unauthorized\0"
    "402 Payment Required\0"
    "403 Forbidden\0"
    "404 Not Found\0";
constexpr size_t kStatusCodeSize = 3;
