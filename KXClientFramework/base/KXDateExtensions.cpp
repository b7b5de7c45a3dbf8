#include <KXClientFramework/KXDateExtensions.h>
#include <KXClientFramework/KXLog.h>

#include <fmt/chrono.h>

std::chrono::system_clock::time_point KXDateExtensions::dateInUTCFromDate(
    std::chrono::system_clock::time_point date) {
    // Minute boundaries are the same in every whole-hour offset, so flooring the instant is what
    // a round trip through a minute-precision UTC text gives.
    const auto result = std::chrono::floor<std::chrono::minutes>(date);
    KX_LOG_DEBUG("\nUTC date: {:%Y-%m-%d %H:%M:%S} +0000",
                 std::chrono::time_point_cast<std::chrono::seconds>(result));
    return result;
}
