// Time stamps in the prefix of a log's lines.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace explain {

// A place in the log: a line, and the time that the log gave last, if it gives any.
struct Moment {
    std::uint64_t line = 0;
    double seconds = 0;  // from some start that is the same in the whole log
    std::string stamp;   // as the log writes it; empty: the log has no time
};

// show_moment is the stamp, or the line where there is none.
std::string show_moment(const Moment &moment);

// show_span is the time between two moments, in seconds if both have one, else in lines: "12.3 s", "5 min 20 s",
// "40 lines".
std::string show_span(const Moment &from, const Moment &to);
bool in_seconds(const Moment &from, const Moment &to);
double span(const Moment &from, const Moment &to);  // never negative

class Clock {
  public:
    // read looks for a time stamp in the text. The first kind that is found is the log's; from then on only that kind
    // counts, since another one can have another start. `microseconds` are those that stand apart from the stamp.
    void read(std::string_view text, std::string_view microseconds = {});

    [[nodiscard]] Moment moment(std::uint64_t line) const { return {line, seconds_, stamp_}; }

  private:
    enum class Kind { none, date, asctime, syslog, time_of_day, seconds };
    struct Stamp {
        Kind kind = Kind::none;
        double seconds = 0;
        std::size_t length = 0;
    };

    static Stamp stamp_at(std::string_view text);
    static std::optional<Stamp> read_date(std::string_view text);
    static std::optional<Stamp> read_named(std::string_view text);
    static std::optional<Stamp> read_time(std::string_view text);
    static std::optional<Stamp> read_seconds(std::string_view text);
    bool find(std::string_view text);
    bool take(std::string_view text, std::size_t at);

    Kind kind_ = Kind::none;
    std::size_t place_ = 0;  // where the last stamp stood
    double raw_ = 0;         // what the last stamp said by itself
    double offset_ = 0;      // turns of the year or of the day that the stamps do not show
    double seconds_ = 0;
    std::string stamp_;
};

}  // namespace explain
