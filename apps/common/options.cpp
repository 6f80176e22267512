#include "common/options.h"

#include <algorithm>

namespace common {
namespace {

constexpr std::size_t kHelpColumn = 30;

struct GeneralOption {
    std::string_view name;
    std::string_view help;
    Request request;
};
constexpr GeneralOption kGeneralOptions[] = {
    {"--help", "show this text and exit", Request::help},
    {"--version", "show the version and exit", Request::version},
};

const GeneralOption *find_general(std::string_view name) {
    for (const GeneralOption &option : kGeneralOptions) {
        if (option.name == name) return &option;
    }
    return nullptr;
}

const Option &find_option(const OptionTable &table, std::string_view name) {
    for (const OptionSection &section : table) {
        for (const Option &option : section.options) {
            if (option.name == name) return option;
        }
    }
    throw BadInput(cat("unknown option '", printable(name), "'; --help lists all"));
}

void set_initial_values(const OptionTable &table) {
    for (const OptionSection &section : table) {
        for (const Option &option : section.options) {
            if (!option.initial.empty()) option.set(option.initial);
        }
    }
}

void set_option(const Option &option, std::string_view argument) {
    try {
        option.set(argument);
    } catch (const BadInput &bad) {
        throw BadInput(cat(option.name, ": ", bad.what()));
    }
}

}  // namespace

Setter set_flag(bool &field, bool value) {
    return [&field, value](std::string_view) { field = value; };
}

Setter set_text(std::string &field, std::size_t max) {
    return [&field, max](std::string_view text) {
        if (text.size() > max) {
            throw BadInput(cat("'", printable(text), "' has ", text.size(), " bytes, at most ", max, " fit"));
        }
        field = text;
    };
}

Setter set_filled_text(std::string &field, std::size_t max) {
    return [set = set_text(field, max)](std::string_view text) {
        if (text.empty()) throw BadInput("the text is empty");
        set(text);
    };
}

Request read_options(const OptionTable &table, std::span<const char *const> arguments) {
    set_initial_values(table);
    for (std::size_t i = 0; i < arguments.size(); i++) {
        const std::string_view word = arguments[i];
        if (const GeneralOption *general = find_general(word)) return general->request;
        const std::size_t equals = word.find('=');
        const bool joined = equals != std::string_view::npos;
        const Option &option = find_option(table, word.substr(0, equals));
        if (option.argument.empty()) {
            if (joined) throw BadInput(cat(option.name, " takes no argument"));
            set_option(option, {});
        } else if (joined) {
            set_option(option, word.substr(equals + 1));
        } else if (++i < arguments.size()) {
            set_option(option, arguments[i]);
        } else {
            throw BadInput(cat(option.name, " needs a value: ", option.name, " ", option.argument));
        }
    }
    return Request::run;
}

std::string help_row(std::string_view name, std::string_view argument, std::string_view help) {
    std::string left = cat("  ", name, argument.empty() ? "" : " ", argument);
    left.resize(std::max(left.size() + 1, kHelpColumn), ' ');
    return cat(left, help, "\n");
}

std::string options_help(const OptionTable &table) {
    std::string out;
    for (const OptionSection &section : table) {
        out += cat(section.title, ":\n");
        for (const Option &option : section.options) {
            const std::string initial = option.initial.empty() ? "" : cat(" (default: ", option.initial, ")");
            out += help_row(option.name, option.argument, option.help + initial);
        }
        out += "\n";
    }
    out += "Help:\n";
    for (const GeneralOption &option : kGeneralOptions) out += help_row(option.name, "", option.help);
    return out;
}

}  // namespace common
