#include <KXClientFramework/KXError.h>
#include <KXClientFramework/KXJSONReader.h>

#include <gtest/gtest.h>

#include <tuple>

namespace {

std::string nested(std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
}

}  // namespace

TEST(KXJSONReader, RefusesWhatTheLimitsForbidAndSaysWhy) {
    using Kind = KXJSONReadError::Kind;
    KXJSONLimits small;
    small.maximumDepth = 3;
    small.maximumValues = 5;
    KXJSONLimits unique = small;
    unique.rejectDuplicateKeys = true;
    const std::vector<std::tuple<std::string, KXJSONLimits, std::optional<Kind>, std::string>>
        cases = {
            {"[[[]]]", small, std::nullopt, ""},
            {"[[[[]]]]", small, Kind::TooDeep, "JSON nested deeper than 3 levels"},
            {"[1,2,3,4]", small, std::nullopt, ""},
            {"[1,2,3,4,5]", small, Kind::TooManyValues, "JSON with more than 5 values"},
            {R"({"a":1,"a":2})", small, std::nullopt, ""},
            {R"({"a":1,"a":2})", unique, Kind::DuplicateKey, "duplicate key \"a\""},
            {R"({"a":{"b":1},"c":{"b":2}})", unique, std::nullopt, ""},
            {"[] []", small, Kind::Malformed, "parse error"},
            {"\"\xff\"", small, Kind::Malformed, "UTF-8"},
            {nested(600'000), KXJSONLimits{}, Kind::TooDeep, "JSON nested deeper than 512 levels"},
        };
    for (const auto& [text, limits, refusal, message] : cases) {
        const std::string label = text.substr(0, 24);
        KXJSONReadError error;
        const std::optional<KXJSON> parsed = KXJSONReader::parse(text, limits, &error);
        EXPECT_EQ(parsed.has_value(), !refusal) << label;
        if (refusal) {
            EXPECT_EQ(error.kind, *refusal) << label;
            EXPECT_NE(error.message.find(message), std::string::npos) << error.message;
        }
    }
    EXPECT_EQ(KXJSONReader::parse(R"({"a":[1,{"b":null}],"c":"d"})"),
              KXJSON::parse(R"({"a":[1,{"b":null}],"c":"d"})"));
    EXPECT_EQ(KXJSONReader::depth(*KXJSONReader::parse(nested(512))), 512u);
}

TEST(KXJSONReader, DescribingAValueBuiltTooDeepDoesNotWalkIt) {
    KXJSON deep = nullptr;
    for (int level = 0; level < 200'000; ++level) {
        deep = KXJSON::array({std::move(deep)});
    }
    EXPECT_EQ(KXJSONReader::depth(deep), 200'000u);
    EXPECT_EQ(KXJSONReader::dump(deep), "\"<JSON nested deeper than 512 levels>\"");
    const KXError error(NSOSStatusErrorDomain, 500, KXJSON{{"body", std::move(deep)}});
    EXPECT_NE(error.description().find("UserInfo=\"<JSON nested deeper than 512 levels>\""),
              std::string::npos);
    EXPECT_EQ(KXJSONReader::dump(KXJSON{{"a", "\xff"}}), "{\"a\":\"\xef\xbf\xbd\"}");
}
