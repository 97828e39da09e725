#include "client/time_span.h"

#include <cmath>
#include <cstdlib>
#include <string_view>

static constexpr double kYearS = 366 * 86400.0;

// Takes the number at the start of the text.
// returns: nothing when there is none
static std::optional<double> take_number(const char *&text)
{
    if ((*text < '0' || *text > '9') && *text != '.') { // no sign, blank or "inf"
        return std::nullopt;
    }
    char *end = nullptr;
    const double number = std::strtod(text, &end);
    if (end == text ||
        std::string_view(text, static_cast<size_t>(end - text)).find_first_not_of("0123456789.") !=
            std::string_view::npos) {
        return std::nullopt;
    }
    text = end;
    return number;
}

// in: what follows the number: ":" and two fields below 60
static std::optional<double> read_clock(double first, const char *text)
{
    double total = first;
    for (int fields = 0; *text == ':'; fields++) {
        text++;
        const std::optional<double> field = take_number(text);
        if (!field || *field >= 60 || fields == 2) {
            return std::nullopt;
        }
        total = total * 60 + *field;
    }
    return *text == '\0' ? std::optional(total) : std::nullopt;
}

// in: what follows the number: a unit, and more numbers with smaller ones
static std::optional<double> read_units(double number, const char *text)
{
    static constexpr struct {
        char name;
        int seconds;
    } kUnits[] = {{'h', 3600}, {'m', 60}, {'s', 1}};
    double total = 0;
    for (const auto &unit : kUnits) {
        if (*text != unit.name) {
            continue;
        }
        total += number * unit.seconds;
        text++;
        if (*text == '\0') {
            return total;
        }
        const std::optional<double> next = take_number(text);
        if (!next) {
            return std::nullopt;
        }
        number = *next;
    }
    return std::nullopt;
}

std::optional<int64_t> time_span_us(const std::string &text)
{
    const char *rest = text.c_str();
    const std::optional<double> number = take_number(rest);
    if (!number) {
        return std::nullopt;
    }
    const std::optional<double> seconds = *rest == '\0'  ? number
                                          : *rest == ':' ? read_clock(*number, rest)
                                                         : read_units(*number, rest);
    if (!seconds || *seconds > kYearS || *seconds * 1e6 < 1) {
        return std::nullopt;
    }
    return std::llround(*seconds * 1e6);
}
