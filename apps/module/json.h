// An event as a JSON object on one line, for other programs.
#pragma once

#include <string>
#include <string_view>

namespace module_program {

// is_utf8 returns whether a text is well-formed UTF-8, as JSON demands (RFC 3629).
bool is_utf8(std::string_view text);

// json_string returns a text as a JSON string, in quotes. A byte that belongs to no UTF-8 character becomes U+FFFD.
std::string json_string(std::string_view text);

class JsonObject {
  public:
    // Begins with the keys "event" and "model"; add appends a key, which is not checked to be new.
    JsonObject(std::string_view event, std::string_view model);

    void add(std::string_view key, std::string_view value);
    void add(std::string_view key, long value);

    // text returns the object, without a line end.
    [[nodiscard]] std::string text() const { return text_ + "}"; }

  private:
    void add_raw(std::string_view key, std::string_view value);

    std::string text_ = "{";
};

}  // namespace module_program
