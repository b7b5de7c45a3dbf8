#pragma once

#include <KXClientFramework/KXExport.h>

#include <chrono>

/// Date helpers shared by the library's components.
struct KX_EXPORT KXDateExtensions {
    /// `date` truncated to the whole minute in UTC (as formatting it with "ddMMyyyy HH:mm" in
    /// UTC and parsing it back would give). Logs the result at DEBUG.
    static std::chrono::system_clock::time_point dateInUTCFromDate(
        std::chrono::system_clock::time_point date);
};
