#include "line_reader.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using module_program::LineReader;

// What a reader has handed on, each line as "number text"; "number -" for one that is too long.
class LineReaderTest : public testing::Test {
  protected:
    const LineReader::Take take = [this](long number, std::optional<std::string_view> line) {
        lines.push_back(std::to_string(number) + " " + std::string(line.value_or("-")));
    };
    LineReader reader{5};
    std::vector<std::string> lines;
};

using Texts = std::vector<std::string>;

TEST_F(LineReaderTest, lines_in_any_pieces_come_whole_with_their_numbers) {
    const std::string text = "one\ntwo\n\nfour\n";
    for (size_t size = 1; size <= text.size(); size++) {
        LineReader pieces(5);
        lines.clear();
        for (size_t at = 0; at < text.size(); at += size) pieces.read(text.substr(at, size), take);
        pieces.end(take);
        EXPECT_EQ(lines, (Texts{"1 one", "2 two", "3 ", "4 four"}));
    }
}

TEST_F(LineReaderTest, the_last_line_needs_no_end) {
    reader.read("one\ntwo", take);
    EXPECT_EQ(lines, Texts{"1 one"});
    reader.end(take);
    EXPECT_EQ(lines, (Texts{"1 one", "2 two"}));
    reader.end(take);
    EXPECT_EQ(lines.size(), 2U);
}

TEST_F(LineReaderTest, a_line_that_is_too_long_counts_and_the_next_one_is_read) {
    reader.read("12345\n123456\n", take);
    reader.read("123", take);
    reader.read("456", take);
    reader.read("789\nnext\n", take);
    EXPECT_EQ(lines, (Texts{"1 12345", "2 -", "3 -", "4 next"}));
    reader.read("123456", take);
    reader.end(take);
    EXPECT_EQ(lines.back(), "5 -");
}

TEST_F(LineReaderTest, a_zero_byte_is_a_byte_of_its_line) {
    reader.read(std::string_view("a\0b\n", 4), take);
    EXPECT_EQ(lines, Texts{std::string("1 a\0b", 5)});
}

}  // namespace
