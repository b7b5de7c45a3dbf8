#include "KXInboxTimeText.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <ctime>
#include <limits>

namespace {

std::tm localTime(std::time_t seconds) {
    std::tm fields{};
    localtime_r(&seconds, &fields);
    return fields;
}

int daysInMonth(int yearSince1900, int month) {
    static constexpr int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const int year = yearSince1900 + 1900;
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 1 && leap ? 29 : days[month];
}

// `start` moved by whole calendar units in local time. Years and months keep the day of the
// month where the target month has it and otherwise stop at its last day (31 January plus one
// month is 28 or 29 February), as the Gregorian calendar adds them; days come after that.
std::time_t addCalendarUnits(const std::tm& start, long years, long months, long days) {
    std::tm moved = start;
    const long totalMonths = start.tm_mon + months;
    moved.tm_year = static_cast<int>(start.tm_year + years + totalMonths / 12);
    moved.tm_mon = static_cast<int>(totalMonths % 12);
    moved.tm_mday =
        std::min(start.tm_mday, daysInMonth(moved.tm_year, moved.tm_mon)) + static_cast<int>(days);
    moved.tm_isdst = -1;
    return std::mktime(&moved);
}

// The largest count in [0, upper] for which `fits(count)` holds; `fits` is monotonic.
template <typename Fits>
long largestFitting(long upper, Fits fits) {
    long low = 0;
    while (low < upper) {
        const long middle = low + (upper - low + 1) / 2;
        if (fits(middle)) {
            low = middle;
        } else {
            upper = middle - 1;
        }
    }
    return low;
}

}  // namespace

KXDateComponents KXInboxTimeText::componentsFrom(Clock::time_point from, Clock::time_point to) {
    KXDateComponents components;
    const std::time_t start = Clock::to_time_t(std::chrono::floor<std::chrono::seconds>(from));
    const std::time_t end = Clock::to_time_t(std::chrono::floor<std::chrono::seconds>(to));
    if (end <= start) {
        return components;
    }
    const std::tm startFields = localTime(start);
    const long yearBound = static_cast<long>((end - start) / (365L * 86400L)) + 1;
    components.year = largestFitting(
        yearBound, [&](long years) { return addCalendarUnits(startFields, years, 0, 0) <= end; });
    components.month = largestFitting(12, [&](long months) {
        return addCalendarUnits(startFields, components.year, months, 0) <= end;
    });
    components.day = largestFitting(31, [&](long days) {
        return addCalendarUnits(startFields, components.year, components.month, days) <= end;
    });
    long rest = static_cast<long>(
        end - addCalendarUnits(startFields, components.year, components.month, components.day));
    components.hour = rest / 3600;
    rest %= 3600;
    components.minute = rest / 60;
    components.second = rest % 60;
    return components;
}

std::string KXInboxTimeText::timeStringFromDateComponents(const KXDateComponents& components) {
    struct Unit {
        long value;
        const char* singular;
        const char* plural;
    };
    const std::array<Unit, 6> units{{{components.year, "year", "years"},
                                     {components.month, "month", "months"},
                                     {components.day, "day", "days"},
                                     {components.hour, "hour", "hours"},
                                     {components.minute, "minute", "minutes"},
                                     {components.second, "second", "seconds"}}};
    for (const Unit& unit : units) {
        if (unit.value != 0) {
            return fmt::format("{} {} ago", unit.value,
                               unit.value == 1 ? unit.singular : unit.plural);
        }
    }
    return "0 seconds ago";
}

std::string KXInboxTimeText::absoluteDate(Clock::time_point date) {
    const std::tm fields =
        localTime(Clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date)));
    const int hour12 = fields.tm_hour % 12 == 0 ? 12 : fields.tm_hour % 12;
    return fmt::format("{:02}/{:02}/{:04} {}:{:02} {}", fields.tm_mon + 1, fields.tm_mday,
                       fields.tm_year + 1900, hour12, fields.tm_min,
                       fields.tm_hour < 12 ? "AM" : "PM");
}

std::string KXInboxTimeText::textForTimestamp(double timestamp, Clock::time_point now) {
    // A timestamp outside what a time point holds (NaN, huge values from a hostile reply) is
    // read as the epoch rather than overflowing.
    const double seconds = timestamp / 1000.0;
    constexpr double limit = 1e12;  // some 31,000 years
    const auto sinceEpoch =
        std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(
            std::isfinite(seconds) && std::fabs(seconds) < limit ? seconds : 0.0));
    const Clock::time_point date{sinceEpoch};
    const KXDateComponents components = componentsFrom(date, now);
    if (components.year == 0 && components.month == 0 && components.day == 0) {
        return timeStringFromDateComponents(components);
    }
    return absoluteDate(date);
}
