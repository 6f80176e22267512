// The command line as a table: names, arguments, initial values and help of the options stand in it once. Parsing,
// --help and the error messages come from it, and a test compares the man pages with it.
#pragma once

#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "common/text.h"

namespace common {

// Takes the text of an option's argument. Throws BadInput.
using Setter = std::function<void(std::string_view)>;

struct Option {
    std::string name;      // "--port"
    std::string argument;  // what --help calls the argument; empty: the option is a switch and has none
    std::string initial;   // the argument that holds without the option; empty: the field keeps its empty value
    std::string help;
    Setter set;
};

struct OptionSection {
    std::string title;
    std::vector<Option> options;
};
using OptionTable = std::vector<OptionSection>;

// The setters that most options need. Each keeps a reference to the field.
Setter set_flag(bool &field, bool value = true);
Setter set_text(std::string &field, std::size_t max);         // at most `max` bytes
Setter set_filled_text(std::string &field, std::size_t max);  // and not empty

template <class Number>
Setter set_number(Number &field, long min, long max) {
    return [&field, min, max](std::string_view text) { field = static_cast<Number>(read_number(text, min, max)); };
}

enum class Request { run, help, version };

// read_options sets the initial values and then those of the arguments: "--name argument" or "--name=argument". It
// knows --help and --version by itself and returns at the first of them. Throws BadInput.
Request read_options(const OptionTable &table, std::span<const char *const> arguments);

// help_row is one line of a help text: what the user writes, and what it does.
std::string help_row(std::string_view name, std::string_view argument, std::string_view help);

// options_help explains every option of the table, then --help and --version.
std::string options_help(const OptionTable &table);

}  // namespace common
