#include "module_options.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

using module_program::CommandLine;

CommandLine parse(std::initializer_list<const char *> arguments) {
    const std::vector<const char *> all(arguments);
    return module_program::parse_command_line(all);
}

TEST(Options, without_arguments_the_module_runs_with_its_defaults) {
    const CommandLine line = parse({});
    EXPECT_EQ(line.action, CommandLine::Action::run);
    EXPECT_EQ(line.options.model, "desk");
    EXPECT_EQ(line.options.seconds, 3600);
    EXPECT_EQ(line.options.max_message, 1048576);
    EXPECT_EQ(line.options.fragment_size, 8192);
    EXPECT_FALSE(line.options.has_goals());
}

TEST(Options, every_option_reaches_its_field) {
    const auto options = parse({"--model",
                                "base",
                                "--sub-name=sub",
                                "--device-model",
                                "dev",
                                "--log",
                                "-",
                                "--log-level",
                                "9",
                                "--exchanges=5",
                                "--tunnels",
                                "2",
                                "--links",
                                "3",
                                "--seconds",
                                "60",
                                "--fragment-size",
                                "16000",
                                "--max-message",
                                "125"})
                             .options;
    EXPECT_EQ(options.model, "base");
    EXPECT_EQ(options.sub_name, "sub");
    EXPECT_EQ(options.device_model, "dev");
    EXPECT_EQ(options.log, "-");
    EXPECT_EQ(options.log_level, 9);
    EXPECT_EQ(options.exchanges, 5);
    EXPECT_EQ(options.tunnels, 2);
    EXPECT_EQ(options.links, 3);
    EXPECT_EQ(options.seconds, 60);
    EXPECT_EQ(options.fragment_size, 16000);
    EXPECT_EQ(options.max_message, 125);
    EXPECT_TRUE(options.has_goals());
}

TEST(Options, names_of_31_characters_fit_and_longer_ones_are_refused) {
    const std::string fits(31, 'x');
    const std::string longer(32, 'x');
    for (const char *option : {"--model", "--sub-name", "--device-model"}) {
        EXPECT_EQ(parse({option, fits.c_str()}).action, CommandLine::Action::run) << option;
        const CommandLine line = parse({option, longer.c_str()});
        EXPECT_EQ(line.action, CommandLine::Action::refuse) << option;
        EXPECT_NE(line.fault.find("32 characters"), std::string::npos) << line.fault;
        EXPECT_EQ(parse({option, ""}).action, CommandLine::Action::refuse) << option;
    }
}

TEST(Options, values_outside_their_range_are_refused) {
    for (const char *option :
         {"--log-level=10", "--log-level=-1", "--log-level=x", "--exchanges=0", "--exchanges=5x", "--tunnels=-1",
          "--links=", "--seconds=0", "--seconds=99999999999999999999", "--fragment-size=8191", "--fragment-size=0",
          "--max-message=124", "--max-message=67108865"}) {
        EXPECT_EQ(parse({option}).action, CommandLine::Action::refuse) << option;
    }
}

TEST(Options, unknown_and_incomplete_options_are_refused) {
    EXPECT_NE(parse({"--modell", "x"}).fault.find("unknown option '--modell'"), std::string::npos);
    EXPECT_EQ(parse({"model"}).action, CommandLine::Action::refuse);
    EXPECT_EQ(parse({""}).action, CommandLine::Action::refuse);
    EXPECT_NE(parse({"--model"}).fault.find("needs a value"), std::string::npos);
}

TEST(Options, a_fault_is_one_line_whatever_the_value_holds) {
    EXPECT_EQ(parse({"--seconds", "1\n2"}).fault.find('\n'), std::string::npos);
    EXPECT_EQ(parse({"--\n"}).fault.find('\n'), std::string::npos);
}

TEST(Options, help_names_every_option) {
    const std::string help = module_program::help_text();
    for (const char *option :
         {"--model", "--sub-name", "--device-model", "--log", "--log-level", "--exchanges", "--tunnels", "--links",
          "--seconds", "--fragment-size", "--max-message", "--help", "--version"}) {
        EXPECT_NE(help.find(option), std::string::npos) << option;
    }
    EXPECT_EQ(parse({"--help"}).action, CommandLine::Action::help);
    EXPECT_EQ(parse({"--version"}).action, CommandLine::Action::version);
}

}  // namespace
