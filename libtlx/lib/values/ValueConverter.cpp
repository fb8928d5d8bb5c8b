#include <tlx/ValueConverter.h>

#include <cstdio>
#include <string_view>

#include <tlx/Number.h>
#include <tlx/Text.h>

namespace Veltrane::Quillmark::Tlx {

namespace {

constexpr std::uint64_t MICROSECONDS = 1000000;
constexpr std::size_t FRACTION_DIGITS = 6;

/// Does not change out if the text is not such a number.
template <class Number>
bool takeNumber(std::string_view text, Number& out)
{
    const auto number = parseNumber<Number>(text);
    out = number.value_or(out);
    return number.has_value();
}

/// One to six digits after the point. The first one counts tenths.
bool parseFraction(std::string_view digits, std::uint64_t& out)
{
    if (digits.empty() || digits.size() > FRACTION_DIGITS)
        return false;
    const auto number = parseNumber<std::uint64_t>(digits);
    if (!number)
        return false;
    out = *number;
    for (std::size_t i = digits.size(); i < FRACTION_DIGITS; ++i)
        out *= 10;
    return true;
}

} // namespace

// Writes a time before the epoch as a negative decimal number, because readers of the document
// expect a number. A second and a half before the epoch is "-1.500000", although the value counts
// its microseconds upwards from -2 seconds.
std::string toText(const TlxObjTime& time)
{
    const bool negative = time.seconds() < 0;
    auto seconds = static_cast<std::uint64_t>(time.seconds());
    auto microseconds = static_cast<std::uint64_t>(time.microseconds());
    if (negative) {
        seconds = 0 - seconds; // unsigned, because the smallest value has no positive one
        if (microseconds > 0) {
            --seconds;
            microseconds = MICROSECONDS - microseconds;
        }
    }
    char text[40];
    std::snprintf(text, sizeof text, "%s%llu.%06llu", negative ? "-" : "",
                  static_cast<unsigned long long>(seconds),
                  static_cast<unsigned long long>(microseconds));
    return text;
}

bool fromText(const TlxString& text, TlxObjTime& out)
{
    std::string_view rest = trimmed(text.utf8());
    const bool negative = !rest.empty() && rest.front() == '-';
    if (negative)
        rest.remove_prefix(1);
    const auto dot = rest.find('.');
    std::uint64_t seconds = 0;
    std::uint64_t microseconds = 0;
    if (!takeNumber(rest.substr(0, dot), seconds))
        return false;
    if (dot != std::string_view::npos && !parseFraction(rest.substr(dot + 1), microseconds))
        return false;

    constexpr auto largest = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
    if (!negative) {
        if (seconds > largest)
            return false;
        out =
            TlxObjTime(static_cast<std::int64_t>(seconds), static_cast<std::int64_t>(microseconds));
        return true;
    }
    if (seconds > largest) {
        // Only the smallest of all times is so far away.
        if (seconds != largest + 1 || microseconds != 0)
            return false;
        out = TlxObjTime(std::numeric_limits<std::int64_t>::min());
        return true;
    }
    out = TlxObjTime(-static_cast<std::int64_t>(seconds), -static_cast<std::int64_t>(microseconds));
    return true;
}

bool fromText(const TlxString& text, std::uint32_t& out)
{
    return takeNumber(trimmed(text.utf8()), out);
}

bool fromText(const TlxString& text, std::int32_t& out)
{
    return takeNumber(trimmed(text.utf8()), out);
}

bool fromText(const TlxString& text, std::uint64_t& out)
{
    return takeNumber(trimmed(text.utf8()), out);
}

} // namespace Veltrane::Quillmark::Tlx
