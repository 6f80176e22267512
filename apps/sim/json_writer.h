// A JSON text, written from front to back.
#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace sim {

class JsonWriter {
  public:
    JsonWriter &begin_object() { return open('{'); }
    JsonWriter &end_object() { return close('}'); }
    JsonWriter &begin_array() { return open('['); }
    JsonWriter &end_array() { return close(']'); }

    JsonWriter &key(std::string_view name);

    // A text may hold any bytes: those that are no UTF-8 become U+FFFD.
    JsonWriter &value(std::string_view text);
    JsonWriter &value(const char *text) { return value(std::string_view(text)); }
    JsonWriter &value(double number);  // with three decimals
    template <std::same_as<bool> Bool>
    JsonWriter &value(Bool truth) {
        return put(truth ? "true" : "false");
    }
    template <std::integral Number>
    requires(!std::same_as<Number, bool>) JsonWriter &value(Number number) { return put(std::to_string(number)); }
    JsonWriter &base64(std::string_view bytes);

    template <class Value>
    JsonWriter &member(std::string_view name, const Value &what) {
        return key(name).value(what);
    }

    // raw is a value that is JSON already.
    JsonWriter &raw(std::string_view json) { return put(json); }

    [[nodiscard]] std::size_t size() const { return text_.size(); }
    [[nodiscard]] std::string take() { return std::move(text_); }

  private:
    JsonWriter &open(char bracket);
    JsonWriter &close(char bracket);
    JsonWriter &put(std::string_view literal);
    void separate();

    std::string text_;
    bool first_ = true;  // no comma in front of what comes next
};

}  // namespace sim
