#include "common/options.h"

#include <algorithm>

namespace bench {

Options::Options(int argc, char **argv, std::initializer_list<std::string_view> known) {
    for (int i = 1; i < argc; i++) {
        const std::string_view name = argv[i];
        const auto row = std::find_if(known.begin(), known.end(), [&](std::string_view one) {
            return one == name || (one.ends_with('=') && one.substr(0, one.size() - 1) == name);
        });
        if (row == known.end()) throw Failure("unknown option '" + std::string(name) + "'");
        const bool valued = row->ends_with('=');
        if (valued && i + 1 == argc) throw Failure(std::string(name) + " has no value");
        given_.push_back({name, valued ? argv[++i] : ""});
    }
}

const Options::Given *Options::find(std::string_view name) const {
    const auto at = std::find_if(given_.begin(), given_.end(), [&](const Given &one) { return one.name == name; });
    return at == given_.end() ? nullptr : &*at;
}

std::string Options::text(std::string_view name, std::string_view otherwise) const {
    const Given *given = find(name);
    return std::string(given ? given->value : otherwise);
}

template <typename Number>
Number Options::read(std::string_view name, Number otherwise) const {
    const Given *given = find(name);
    if (!given) return otherwise;
    const std::string_view text = given->value;
    Number value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0)
        throw Failure(std::string(name) + " '" + std::string(text) + "' is not a number");
    return value;
}

long Options::number(std::string_view name, long otherwise) const { return read(name, otherwise); }

double Options::seconds(std::string_view name, double otherwise) const { return read(name, otherwise); }

}  // namespace bench
