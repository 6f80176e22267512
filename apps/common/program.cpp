#include "common/program.h"

#include <cstdio>

namespace common {

static int show(const std::string &text) {
    if (std::fputs(text.c_str(), stdout) == EOF || std::fflush(stdout) != 0) {
        throw std::runtime_error("cannot write standard output");
    }
    return 0;
}

int run_program(const Program &program, std::span<const char *const> arguments) try {
    switch (read_options(program.options, arguments)) {
        case Request::help:
            return show(program.help());
        case Request::version:
            return show(cat(program.name, " ", program.version, "\n"));
        case Request::run:
            break;
    }
    return program.run();
} catch (const BadInput &bad) {
    complain(program.name, bad.what());
    return 2;
} catch (const std::exception &error) {
    complain(program.name, error.what());
    return 1;
}

void complain(std::string_view program, std::string_view what) {
    std::fputs(cat(program, ": ", what, "\n").c_str(), stderr);
}

}  // namespace common
