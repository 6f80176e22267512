// The formats of the library's messages, gathered from its sources when the program is built.
#pragma once

#include <span>
#include <string_view>

namespace explain {

struct Format {
    int level;  // the library's, 1 INIT to 9 TIMER DETAIL
    std::string_view text;
};

// The header of a packet dump goes past the print callback, so no LOG call has it; its first and its second line.
inline constexpr std::string_view kDumpHeader = "[%s][%06u][PACKAGE DETAIL]: ";
inline constexpr std::string_view kDumpData = "***************** Data *****************";
inline constexpr std::string_view kDumpText = "***************** String *****************";
inline constexpr std::string_view kDumpEnd = "***************** End *****************";

inline constexpr Format kFormats[] = {
    {7, kDumpHeader},
    {7, kDumpData},
#include "log_formats.inc"
};

// is_gathered is true when the library has a message of this format.
constexpr bool is_gathered(std::string_view text) {
    for (const Format &format : kFormats) {
        if (format.text == text) return true;
    }
    return false;
}

}  // namespace explain
