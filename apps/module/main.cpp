// cloudtunnel-module: a module process on libcloudtunnel's public header. See --help.
#include <cstdio>
#include <exception>

#include "module.h"
#include "module_options.h"
#include "signals.h"

int main(int argc, char **argv) try {
    using module_program::CommandLine;
    const CommandLine line = module_program::parse_command_line({argv + 1, argv + argc});
    switch (line.action) {
        case CommandLine::Action::help:
            std::fputs(module_program::help_text().c_str(), stdout);
            return 0;
        case CommandLine::Action::version:
            std::puts("cloudtunnel-module " CLOUDTUNNEL_MODULE_VERSION);
            return 0;
        case CommandLine::Action::refuse:
            std::fprintf(stderr, "cloudtunnel-module: %s (--help explains all)\n", line.fault.c_str());
            return 2;
        case CommandLine::Action::run:
            break;
    }
    std::setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
    module_program::catch_signals();
    return module_program::Module(line.options).run();
} catch (const std::exception &error) {
    std::fprintf(stderr, "cloudtunnel-module: %s\n", error.what());
    return 1;
}
