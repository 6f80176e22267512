// Options of the bench's programs: "--name value" and "--switch".
#pragma once

#include <charconv>
#include <initializer_list>
#include <vector>

#include "common/machine.h"

namespace bench {

class Options {
  public:
    // `known` names what may stand on the command line; a name that ends with '=' has a value.
    Options(int argc, char **argv, std::initializer_list<std::string_view> known);

    [[nodiscard]] bool has(std::string_view name) const { return find(name) != nullptr; }
    [[nodiscard]] std::string text(std::string_view name, std::string_view otherwise) const;
    [[nodiscard]] long number(std::string_view name, long otherwise) const;
    [[nodiscard]] double seconds(std::string_view name, double otherwise) const;

  private:
    struct Given {
        std::string_view name;
        std::string_view value;
    };
    [[nodiscard]] const Given *find(std::string_view name) const;
    template <typename Number>
    Number read(std::string_view name, Number otherwise) const;

    std::vector<Given> given_;
};

// run_program calls `body` and turns what it throws into one line that begins with `name`. Returns the status of main.
template <typename Body>
int run_program(const char *name, Body body) {
    try {
        body();
        return 0;
    } catch (const std::exception &error) {
        fprintf(stderr, "%s: %s\n", name, error.what());
        return 1;
    }
}

}  // namespace bench
