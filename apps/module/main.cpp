// cloudtunnel-module: a module process, on the public headers of both libraries. See --help.
#include "common/program.h"
#include "module.h"
#include "options.h"
#include "signals.h"

int main(int argc, char **argv) {
    module_program::Options options;
    const common::Program program = {
        .name = module_program::kProgramName,
        .version = CLOUDTUNNEL_MODULE_VERSION,
        .options = module_program::option_table(options),
        .help = module_program::help_text,
        .run =
            [&options] {
                module_program::catch_signals();
                return module_program::Module(options).run();
            },
    };
    return common::run_program(program, {argv + 1, argv + argc});
}
