#include "line_reader.h"

namespace module_program {

void LineReader::read(std::string_view bytes, const Take &take) {
    while (!bytes.empty()) {
        const size_t end = bytes.find('\n');
        add(bytes.substr(0, end));
        if (end == std::string_view::npos) return;
        complete(take);
        bytes.remove_prefix(end + 1);
    }
}

void LineReader::end(const Take &take) {
    if (!line_.empty() || too_long_) complete(take);
}

void LineReader::add(std::string_view piece) {
    if (too_long_) return;
    too_long_ = line_.size() + piece.size() > longest_;
    if (too_long_)
        line_ = {};
    else
        line_ += piece;
}

void LineReader::complete(const Take &take) {
    constexpr size_t kKept = 65536;  // bytes of memory that stay for the next line
    number_++;
    take(number_, too_long_ ? std::nullopt : std::optional<std::string_view>(line_));
    too_long_ = false;
    line_.clear();
    if (line_.capacity() > kKept) line_.shrink_to_fit();
}

}  // namespace module_program
