#include "clock.h"

#include <algorithm>
#include <charconv>
#include <cmath>

#include "common/text.h"

namespace explain {
namespace {

constexpr std::size_t kPrefixMax = 100;  // how far into a line a stamp may begin
constexpr double kDay = 86400;
constexpr double kYear = 366 * kDay;
constexpr int kLeapYear = 2000;  // for stamps without a year, so that February has 29 days

bool is_digit(char c) { return c >= '0' && c <= '9'; }

// A reader of fixed fields that remembers whether all of them were there.
class Fields {
  public:
    explicit Fields(std::string_view text) : text_(text) {}

    int number(std::size_t width, int min, int max) {
        int value = 0;
        const char *begin = text_.data() + at_;
        if (at_ + width > text_.size() || !std::all_of(begin, begin + width, is_digit)) return fail();
        std::from_chars(begin, begin + width, value);
        at_ += width;
        return value < min || value > max ? fail() : value;
    }
    // A day of the month that syslog and asctime fill up with a blank.
    int day() {
        if (at_ < text_.size() && text_[at_] == ' ') {
            at_++;
            return number(1, 1, 9);
        }
        return number(2, 1, 31);
    }
    int month() {
        constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
        const std::size_t found = at_ + 3 <= text_.size() ? kMonths.find(text_.substr(at_, 3)) : std::string_view::npos;
        if (found == std::string_view::npos || found % 3 != 0) return fail();
        at_ += 3;
        return static_cast<int>(found / 3) + 1;
    }
    char any_of(std::string_view wanted) {
        if (at_ >= text_.size() || wanted.find(text_[at_]) == std::string_view::npos) {
            good_ = false;
            return 0;
        }
        return text_[at_++];
    }
    double time_of_day() {
        const int hours = number(2, 0, 23);
        any_of(":");
        const int minutes = number(2, 0, 59);
        any_of(":");
        const int seconds = number(2, 0, 60);
        return hours * 3600.0 + minutes * 60.0 + seconds + fraction();
    }
    double fraction() {
        double value = 0;
        if (!good_ || at_ + 1 >= text_.size() || (text_[at_] != '.' && text_[at_] != ',') || !is_digit(text_[at_ + 1]))
            return 0;
        double place = 1;
        for (at_++; at_ < text_.size() && is_digit(text_[at_]); at_++) {
            place /= 10;
            value += place * (text_[at_] - '0');
        }
        return value;
    }
    // The distance from UTC that may follow: Z, +01:00, +0100.
    double zone() {
        if (!good_ || at_ >= text_.size()) return 0;
        if (text_[at_] == 'Z') {
            at_++;
            return 0;
        }
        if (text_[at_] != '+' && text_[at_] != '-') return 0;
        Fields offset(text_.substr(at_ + 1));
        const int hours = offset.number(2, 0, 14);
        if (offset.at_ < offset.text_.size() && offset.text_[offset.at_] == ':') offset.at_++;
        const int minutes = offset.number(2, 0, 59);
        if (!offset.good_) return 0;
        const double value = hours * 3600.0 + minutes * 60.0;
        const bool west = text_[at_] == '-';
        at_ += 1 + offset.at_;
        return west ? -value : value;
    }
    [[nodiscard]] bool good() const { return good_; }
    [[nodiscard]] std::size_t length() const { return at_; }

  private:
    int fail() {
        good_ = false;
        return 0;
    }
    std::string_view text_;
    std::size_t at_ = 0;
    bool good_ = true;
};

// Days from a fixed day to a date of the Gregorian calendar; the year begins in March, so that a leap day is its last.
int day_number(int year, int month, int day) {
    const int y = month <= 2 ? year - 1 : year;
    const int m = (month + 9) % 12;
    return 365 * y + y / 4 - y / 100 + y / 400 + (153 * m + 2) / 5 + day;
}

}  // namespace

std::string show_moment(const Moment &moment) {
    return moment.stamp.empty() ? common::cat("line ", moment.line) : moment.stamp;
}

bool in_seconds(const Moment &from, const Moment &to) { return !from.stamp.empty() && !to.stamp.empty(); }

double span(const Moment &from, const Moment &to) {
    const double difference = in_seconds(from, to) ? to.seconds - from.seconds
                                                   : static_cast<double>(to.line) - static_cast<double>(from.line);
    return std::max(0.0, difference);
}

std::string show_span(const Moment &from, const Moment &to) {
    const double length = span(from, to);
    const auto whole = static_cast<long>(length);
    if (!in_seconds(from, to)) return common::cat(whole, whole == 1 ? " line" : " lines");
    if (length < 60) return common::cat(std::round(length * 100) / 100, " s");
    if (length < 3600) return common::cat(whole / 60, " min ", whole % 60, " s");
    return common::cat(whole / 3600, " h ", whole / 60 % 60, " min");
}

// 2026-01-31T12:34:56.789+01:00, and with a blank or a slash in the usual places.
std::optional<Clock::Stamp> Clock::read_date(std::string_view text) {
    Fields in(text);
    const int year = in.number(4, 1970, 9999);
    in.any_of("-/");
    const int month = in.number(2, 1, 12);
    in.any_of("-/");
    const int day = in.number(2, 1, 31);
    in.any_of("T_ ");
    const double time = in.time_of_day();
    const double zone = in.zone();
    if (!in.good()) return std::nullopt;
    return Stamp{Kind::date, day_number(year, month, day) * kDay + time - zone, in.length()};
}

// "Sun Nov 22 01:47:50 2026", as asctime writes it, and "Nov 22 01:47:50", as syslog does.
std::optional<Clock::Stamp> Clock::read_named(std::string_view text) {
    constexpr std::string_view kWeekdays = "SunMonTueWedThuFriSat";
    const std::size_t name = kWeekdays.find(text.substr(0, 3));
    const bool weekday = text.size() > 4 && text[3] == ' ' && name != std::string_view::npos && name % 3 == 0;
    const std::size_t skipped = weekday ? 4 : 0;
    Fields in(text.substr(skipped));
    const int month = in.month();
    in.any_of(" ");
    const int day = in.day();
    in.any_of(" ");
    const double time = in.time_of_day();
    if (!in.good()) return std::nullopt;
    const std::size_t without_year = skipped + in.length();
    if (weekday) {
        in.any_of(" ");
        const int year = in.number(4, 1970, 9999);
        if (in.good()) return Stamp{Kind::asctime, day_number(year, month, day) * kDay + time, skipped + in.length()};
    }
    return Stamp{Kind::syslog, day_number(kLeapYear, month, day) * kDay + time, without_year};
}

std::optional<Clock::Stamp> Clock::read_time(std::string_view text) {
    Fields in(text);
    const double time = in.time_of_day();
    if (!in.good()) return std::nullopt;
    return Stamp{Kind::time_of_day, time, in.length()};
}

std::optional<Clock::Stamp> Clock::read_seconds(std::string_view text) {
    std::size_t digits = 0;
    while (digits < text.size() && is_digit(text[digits])) digits++;
    constexpr std::size_t kDigitsMax = 10;
    if (digits == 0 || digits > kDigitsMax || digits + 1 >= text.size() || text[digits] != '.') return std::nullopt;
    long whole = 0;
    std::from_chars(text.data(), text.data() + digits, whole);
    Fields in(text.substr(digits));
    const double fraction = in.fraction();
    const std::size_t length = digits + in.length();
    if (in.length() < 2 || (length < text.size() && text[length] == '.')) return std::nullopt;  // an address, a version
    return Stamp{Kind::seconds, static_cast<double>(whole) + fraction, length};
}

Clock::Stamp Clock::stamp_at(std::string_view text) {
    if (text.empty()) return {};
    if (text.front() >= 'A' && text.front() <= 'Z') return read_named(text).value_or(Stamp{});
    if (!is_digit(text.front())) return {};
    if (const auto date = read_date(text)) return *date;
    if (const auto time = read_time(text)) return *time;
    return read_seconds(text).value_or(Stamp{});
}

// Stamps without a year or a day begin again: a step back of more than half the turn is taken for that.
bool Clock::take(std::string_view text, std::size_t at) {
    if (at >= text.size() || (at > 0 && is_digit(text[at - 1]))) return false;
    const Stamp stamp = stamp_at(text.substr(at));
    if (stamp.kind == Kind::none || (kind_ != Kind::none && stamp.kind != kind_)) return false;
    const double turn = stamp.kind == Kind::syslog ? kYear : stamp.kind == Kind::time_of_day ? kDay : 0;
    if (kind_ != Kind::none && turn > 0 && raw_ - stamp.seconds > turn / 2) offset_ += turn;
    kind_ = stamp.kind;
    place_ = at;
    raw_ = stamp.seconds;
    seconds_ = stamp.seconds + offset_;
    stamp_ = text.substr(at, stamp.length);
    return true;
}

bool Clock::find(std::string_view text) {
    text = text.substr(0, kPrefixMax);
    if (kind_ != Kind::none && take(text, place_)) return true;
    bool inside = false;  // a word or a number
    for (std::size_t at = 0; at < text.size(); at++) {
        const char c = text[at];
        const bool letter = is_digit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
        // A number of seconds stands in front, or in brackets: elsewhere it is something else.
        const bool in_front = text.find_first_not_of(" [(<\t") == at || (at > 0 && text[at - 1] == '[');
        if (letter && !inside) {
            const Stamp stamp = stamp_at(text.substr(at));
            if ((stamp.kind != Kind::seconds || in_front) && take(text, at)) return true;
        }
        inside = letter || c == '.';
    }
    return false;
}

void Clock::read(std::string_view text, std::string_view microseconds) {
    if (!find(text) || microseconds.empty() || kind_ != Kind::asctime) return;
    seconds_ += static_cast<double>(common::parse_number(microseconds, 0, 999999).value_or(0)) / 1e6;
    constexpr std::size_t kYearLength = 5;
    stamp_.insert(stamp_.size() - kYearLength, common::cat(".", microseconds));  // 12:34:56.000789 2026
}

}  // namespace explain
