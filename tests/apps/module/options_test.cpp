#include "options.h"

#include <cloudtunnel_module.h>
#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

namespace {

using module_program::Options;

Options parse(std::initializer_list<const char *> arguments) {
    const std::vector<const char *> all(arguments);
    Options options;
    common::read_options(module_program::option_table(options), all);
    return options;
}

// fault is the reason why the arguments are refused; an empty text when they are not.
std::string fault(std::initializer_list<const char *> arguments) {
    try {
        parse(arguments);
    } catch (const common::BadInput &bad) {
        return bad.what();
    }
    return {};
}

TEST(Options, without_arguments_the_module_runs_with_its_defaults) {
    const Options options = parse({});
    EXPECT_EQ(options.models, std::vector<std::string>{"desk"});
    EXPECT_EQ(options.sub_name, "desk-module");
    EXPECT_EQ(options.device_model, "desk-device");
    EXPECT_EQ(options.log, "");
    EXPECT_EQ(options.log_level, 5);
    EXPECT_EQ(options.seconds, 3600);
    EXPECT_EQ(options.max_message, 1048576);
    EXPECT_EQ(options.fragment_size, 8192);
    EXPECT_EQ(options.ping, 30);
    EXPECT_EQ(options.exec, "");
    EXPECT_FALSE(options.lines);
    EXPECT_EQ(options.socket, "");
    EXPECT_EQ(options.metrics, "");
    EXPECT_FALSE(options.has_goals());
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
                                "125",
                                "--ping=0",
                                "--exec",
                                "./handler --fast",
                                "--lines",
                                "--socket=/run/module.sock",
                                "--metrics",
                                "module.prom"});
    EXPECT_EQ(options.models, std::vector<std::string>{"base"});
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
    EXPECT_EQ(options.ping, 0);
    EXPECT_EQ(options.exec, "./handler --fast");
    EXPECT_TRUE(options.lines);
    EXPECT_EQ(options.socket, "/run/module.sock");
    EXPECT_EQ(options.metrics, "module.prom");
    EXPECT_TRUE(options.has_goals());
}

TEST(Options, names_of_31_characters_fit_and_longer_ones_are_refused) {
    const std::string fits(31, 'x');
    const std::string longer(32, 'x');
    for (const char *option : {"--model", "--sub-name", "--device-model"}) {
        EXPECT_EQ(fault({option, fits.c_str()}), "") << option;
        EXPECT_EQ(fault({option, longer.c_str()}),
                  std::string(option) + ": '" + longer + "' has 32 bytes, at most 31 fit");
        EXPECT_EQ(fault({option, ""}), std::string(option) + ": the text is empty");
    }
}

TEST(Options, several_models_are_kept_in_their_order_without_the_default) {
    EXPECT_EQ(parse({"--model", "b", "--model=a"}).models, (std::vector<std::string>{"b", "a"}));
    EXPECT_EQ(parse({"--model", "desk"}).models, std::vector<std::string>{"desk"});
    EXPECT_EQ(fault({"--model=a", "--model=b", "--model=a"}), "--model: 'a' is given twice");
    std::vector<std::string> names;
    for (int i = 0; i <= CTM_TUNNEL_MAX; i++) names.push_back("--model=m" + std::to_string(i));
    std::vector<const char *> arguments;
    for (const std::string &name : names) arguments.push_back(name.c_str());
    Options options;
    EXPECT_THROW(common::read_options(module_program::option_table(options), arguments), common::BadInput);
    EXPECT_EQ(options.models.size(), CTM_TUNNEL_MAX);
}

TEST(Options, the_timeline_leaves_standard_output_to_the_lines_unless_a_handler_has_them) {
    EXPECT_EQ(parse({}).timeline(), stdout);
    EXPECT_EQ(parse({"--lines"}).timeline(), stderr);
    EXPECT_EQ(parse({"--lines", "--exec=cat"}).timeline(), stdout);
    EXPECT_EQ(parse({"--socket=/x"}).timeline(), stdout);
}

TEST(Options, a_socket_has_a_name_that_fits_its_address) {
    EXPECT_EQ(fault({"--socket", std::string(107, 'x').c_str()}), "");
    EXPECT_NE(fault({"--socket", std::string(108, 'x').c_str()}), "");
}

TEST(Options, values_outside_their_range_are_refused) {
    for (const char *option : {"--log-level=10",
                               "--log-level=-1",
                               "--log-level=x",
                               "--exchanges=0",
                               "--exchanges=5x",
                               "--tunnels=-1",
                               "--links=",
                               "--seconds=0",
                               "--seconds=99999999999999999999",
                               "--fragment-size=124",
                               "--fragment-size=65536",
                               "--ping=-1",
                               "--ping=86401",
                               "--ping=",
                               "--exec=",
                               "--lines=yes",
                               "--socket=",
                               "--metrics=",
                               "--max-message=124",
                               "--max-message=67108865"}) {
        EXPECT_NE(fault({option}), "") << option;
    }
}

}  // namespace
