// cloudtunnel-explain: what became of each tunnel, from a log with the library's messages. See --help.
#include <cstdio>
#include <stdexcept>

#include "common/program.h"
#include "common/text.h"
#include "explain.h"
#include "options.h"

namespace {

int explain_file(const std::string &name, const explain::Options &options) {
    const bool found = explain::explain_log(name, options);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) throw std::runtime_error("the output cannot be written");
    if (found) return 0;
    throw std::runtime_error(
        common::cat(name == "-" ? "standard input" : name, ": no message of the library is in it"));
}

}  // namespace

int main(int argc, char **argv) {
    // The name of the file stands last; everything in front of it is options.
    std::span<const char *const> arguments(argv + 1, argv + argc);
    std::string name = "-";
    if (!arguments.empty() && (arguments.back()[0] != '-' || std::string_view(arguments.back()) == "-")) {
        const std::string_view before = arguments.size() > 1 ? arguments[arguments.size() - 2] : "";
        if (before != "--model") {
            name = arguments.back();
            arguments = arguments.first(arguments.size() - 1);
        }
    }
    explain::Options options;
    const common::Program program = {
        .name = explain::kProgramName,
        .version = CLOUDTUNNEL_EXPLAIN_VERSION,
        .options = explain::option_table(options),
        .help = explain::help_text,
        .run = [&] { return explain_file(name, options); },
    };
    return common::run_program(program, arguments);
}
