#include "KXCapturingSink.h"

#include <KXClientFramework/KXDateExtensions.h>
#include <KXClientFramework/KXStringExtensions.h>

#include <gtest/gtest.h>

using namespace std::chrono;

TEST(KXStringExtensions, NilOrEmptyIsTrueForAnythingButANonEmptyString) {
    for (const KXJSON& value : {KXJSON(nullptr), KXJSON(""), KXJSON(0), KXJSON(42), KXJSON(true),
                                KXJSON::array({"a"}), KXJSON::object({{"a", "b"}})}) {
        EXPECT_TRUE(KXStringExtensions::stringIsNilOrEmpty(value)) << value.dump();
    }
    EXPECT_FALSE(KXStringExtensions::stringIsNilOrEmpty(" "));
    EXPECT_FALSE(KXStringExtensions::stringIsNilOrEmpty("x"));
}

TEST(KXStringExtensions, UrlEncodeEscapesReservedCharactersAndBlanksAndNothingIsAbsent) {
    EXPECT_EQ(KXStringExtensions::urlEncode("!*'();:@&=+$,/?%#[] "),
              "%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D%20");
    EXPECT_EQ(KXStringExtensions::urlEncode("AZaz09-_.~"), "AZaz09-_.~");
    EXPECT_EQ(KXStringExtensions::urlEncode("\"<>\\^`{|}"), "%22%3C%3E%5C%5E%60%7B%7C%7D");
    EXPECT_EQ(KXStringExtensions::urlEncode("caf\u00e9"), "caf%C3%A9");
    // Nothing to encode is absent.
    EXPECT_EQ(KXStringExtensions::urlEncode(""), std::nullopt);
    EXPECT_EQ(KXStringExtensions::urlEncode(nullptr), std::nullopt);
    EXPECT_EQ(KXStringExtensions::urlEncode(12), std::nullopt);
}

TEST(KXDateExtensions, TruncatesToTheMinuteInUTCAndLogsTheResultAtDebug) {
    auto sink = KXCapturingSink::install();
    kxLogLevel = 4;
    const auto day = sys_days{2026y / November / 22};
    const auto date = day + 10h + 15min + 59s + 900ms;
    EXPECT_EQ(KXDateExtensions::dateInUTCFromDate(date), day + 10h + 15min);
    const auto lines = sink->linesContaining("UTC date:");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("] \nUTC date: 2026-11-22 10:15:00 +0000"), std::string::npos)
        << lines[0];

    // Before 1970 the minute still starts earlier, not later.
    const auto old = sys_days{1969y / December / 31} + 23h + 59min + 30s;
    EXPECT_EQ(KXDateExtensions::dateInUTCFromDate(old),
              sys_days{1969y / December / 31} + 23h + 59min);
}
