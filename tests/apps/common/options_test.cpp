#include "common/options.h"

#include <gtest/gtest.h>

#include <initializer_list>

namespace {

using common::Request;

struct Fields {
    std::string name;
    int count = 0;
    bool loud = false;
};

common::OptionTable table(Fields &fields) {
    return {
        {"First", {{"--name", "TEXT", "nobody", "a name", common::set_filled_text(fields.name, 8)}}},
        {"Second",
         {
             {"--count", "N", "", "a count", common::set_number(fields.count, 1, 9)},
             {"--loud", "", "", "be loud", common::set_flag(fields.loud)},
         }},
    };
}

Request read(Fields &fields, std::initializer_list<const char *> arguments) {
    const std::vector<const char *> all(arguments);
    return common::read_options(table(fields), all);
}

std::string fault(std::initializer_list<const char *> arguments) {
    Fields fields;
    try {
        read(fields, arguments);
    } catch (const common::BadInput &bad) {
        return bad.what();
    }
    return {};
}

TEST(Options, without_arguments_the_initial_values_hold) {
    Fields fields;
    EXPECT_EQ(read(fields, {}), Request::run);
    EXPECT_EQ(fields.name, "nobody");
    EXPECT_EQ(fields.count, 0);
    EXPECT_FALSE(fields.loud);
}

TEST(Options, an_argument_stands_behind_its_option_or_behind_an_equals_sign) {
    Fields fields;
    EXPECT_EQ(read(fields, {"--name", "a=b", "--count=3", "--loud"}), Request::run);
    EXPECT_EQ(fields.name, "a=b");
    EXPECT_EQ(fields.count, 3);
    EXPECT_TRUE(fields.loud);
}

TEST(Options, help_and_version_end_the_reading) {
    Fields fields;
    EXPECT_EQ(read(fields, {"--count", "3", "--help", "--nonsense"}), Request::help);
    EXPECT_EQ(read(fields, {"--version", "--help"}), Request::version);
}

TEST(Options, a_fault_names_the_option_and_the_reason) {
    EXPECT_EQ(fault({"--nonsense"}), "unknown option '--nonsense'; --help lists all");
    EXPECT_EQ(fault({"word"}), "unknown option 'word'; --help lists all");
    EXPECT_EQ(fault({""}), "unknown option ''; --help lists all");
    EXPECT_EQ(fault({"--name"}), "--name needs a value: --name TEXT");
    EXPECT_EQ(fault({"--name="}), "--name: the text is empty");
    EXPECT_EQ(fault({"--name", "123456789"}), "--name: '123456789' has 9 bytes, at most 8 fit");
    EXPECT_EQ(fault({"--count", "10"}), "--count: '10' is not a number from 1 to 9");
    EXPECT_EQ(fault({"--loud=yes"}), "--loud takes no argument");
}

TEST(Options, a_fault_is_one_line_whatever_the_arguments_hold) {
    EXPECT_EQ(fault({"--count", "1\n2"}).find('\n'), std::string::npos);
    EXPECT_EQ(fault({"--name", "12345678\n"}).find('\n'), std::string::npos);
    EXPECT_EQ(fault({"--\n"}).find('\n'), std::string::npos);
}

TEST(Options, help_has_every_option_with_its_argument_and_initial_value) {
    Fields fields;
    EXPECT_EQ(common::options_help(table(fields)),
              "First:\n"
              "  --name TEXT                 a name (default: nobody)\n"
              "\n"
              "Second:\n"
              "  --count N                   a count\n"
              "  --loud                      be loud\n"
              "\n"
              "Help:\n"
              "  --help                      show this text and exit\n"
              "  --version                   show the version and exit\n");
}

}  // namespace
