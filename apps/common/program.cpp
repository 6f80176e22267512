#include "common/program.h"

#include <cstdio>

namespace common {

int run_program(const Program &program, std::span<const char *const> arguments) try {
    switch (read_options(program.options, arguments)) {
        case Request::help:
            std::fputs(program.help().c_str(), stdout);
            return 0;
        case Request::version:
            std::puts(cat(program.name, " ", program.version).c_str());
            return 0;
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
