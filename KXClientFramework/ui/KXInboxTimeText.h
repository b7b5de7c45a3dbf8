#pragma once

#include <KXClientFramework/KXExport.h>

#include <chrono>
#include <string>

/// Calendar components between two dates, as a Gregorian calendar counts them: whole years
/// first, then whole months, days, hours, minutes and seconds of what is left.
struct KXDateComponents {
    long year = 0;
    long month = 0;
    long day = 0;
    long hour = 0;
    long minute = 0;
    long second = 0;

    bool operator==(const KXDateComponents&) const = default;
};

/// The time text of an inbox row: "5 minutes ago" within a day, else the absolute date.
/// Calendar arithmetic uses the process's local time zone, as the device's calendar would.
struct KX_EXPORT KXInboxTimeText {
    using Clock = std::chrono::system_clock;

    /// The components from `from` to `to` (all zero when `to` is not after `from`).
    static KXDateComponents componentsFrom(Clock::time_point from, Clock::time_point to);

    /// "%ld %@ ago" with the first non-zero component, singular for exactly 1. When every
    /// component is 0 (a message stamped now or in the future) the word is "seconds", so the
    /// text reads "0 seconds ago".
    static std::string timeStringFromDateComponents(const KXDateComponents& components);

    /// `date` as "MM/dd/yyyy h:mm a" in local time, for example "03/07/2016 9:05 PM".
    static std::string absoluteDate(Clock::time_point date);

    /// The row's text for a message `timestamp` in milliseconds since 1970: the relative form
    /// when less than a day lies between it and `now`, else the absolute date.
    static std::string textForTimestamp(double timestamp, Clock::time_point now);
};
