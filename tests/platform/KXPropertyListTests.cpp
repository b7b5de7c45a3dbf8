#include <KXClientFramework/KXPropertyList.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

namespace {

KXJSON sample() {
    return KXJSON{
        {"string", "Grüße, \"quotes\" <tags> & ampersands ]]>"},
        {"empty", ""},
        {"negative", -42},
        {"int64min", std::numeric_limits<std::int64_t>::min()},
        {"int64max", std::numeric_limits<std::int64_t>::max()},
        {"uint64max", std::numeric_limits<std::uint64_t>::max()},
        {"aboveInt64", std::uint64_t{9223372036854775808ULL}},
        {"real", 0.1 + 0.2},
        {"tiny", -2.5e-300},
        {"yes", true},
        {"no", false},
        {"data", KXJSON::binary({0x00, 0xFF, 0x10, 0x80})},
        {"emptyData", KXJSON::binary({})},
        {"array", {1, "two", 3.5, false, KXJSON::object(), KXJSON::array()}},
        {"nested", {{"inner", {{"deeper", {1, 2, 3}}}}}},
    };
}

}  // namespace

TEST(KXPropertyList, RoundTripsEveryTypeWithItsSignednessThroughXMLAndBinary) {
    const KXJSON value = sample();
    const std::string xml = KXPropertyList::toXML(value);
    EXPECT_NE(xml.find("<!DOCTYPE plist"), std::string::npos);
    const std::vector<std::uint8_t> binary = KXPropertyList::toBinary(value);
    ASSERT_TRUE(KXPropertyList::isBinary(binary));
    for (const auto& text : {xml, std::string(binary.begin(), binary.end())}) {
        SCOPED_TRACE(text.substr(0, 8));
        auto parsed = KXPropertyList::parse(text);
        ASSERT_TRUE(parsed.has_value());
        EXPECT_EQ(*parsed, value);
        // Equality of numbers ignores their kind (-1 equals 2^64 - 1), so kinds are compared.
        using Kind = KXJSON::value_t;
        for (const auto& [key, kind] : {std::pair{"negative", Kind::number_integer},
                                        {"int64min", Kind::number_integer},
                                        {"uint64max", Kind::number_unsigned},
                                        {"aboveInt64", Kind::number_unsigned},
                                        {"real", Kind::number_float},
                                        {"yes", Kind::boolean},
                                        {"data", Kind::binary}}) {
            EXPECT_EQ((*parsed)[key].type(), kind) << key;
        }
    }
    EXPECT_EQ(KXPropertyList::parse(binary), value);
}

// The document header, strings, booleans and integers are read by the configuration tests.
TEST(KXPropertyList, ReadsDatesAsTheirTextDataAsBase64AndRootsOfAnyType) {
    EXPECT_EQ(KXPropertyList::parse(
                  std::string("<plist><dict><key>when</key><date>2021-06-15T08:30:00Z"
                              "</date><key>blob</key><data>aGVsbG8=</data></dict></plist>")),
              (KXJSON{{"when", "2021-06-15T08:30:00Z"},
                      {"blob", KXJSON::binary({'h', 'e', 'l', 'l', 'o'})}}));
    EXPECT_EQ(KXPropertyList::parse(std::string(
                  "<plist><array><string>a</string><integer>-1</integer></array></plist>")),
              KXJSON({"a", -1}));
}

TEST(KXPropertyList, WritingSkipsNullsAndRepairsInvalidUTF8) {
    const KXJSON value{{"kept", 1},
                       {"dropped", nullptr},
                       {"list", {1, nullptr, 2}},
                       {"bad", std::string("a\xFF\xC0z")},
                       {"nul", std::string("a\0b", 3)}};
    for (const auto& parsed : {KXPropertyList::parse(KXPropertyList::toXML(value)),
                               KXPropertyList::parse(KXPropertyList::toBinary(value))}) {
        ASSERT_TRUE(parsed.has_value());
        EXPECT_FALSE(parsed->contains("dropped"));
        EXPECT_EQ((*parsed)["list"], KXJSON({1, 2}));
        EXPECT_EQ((*parsed)["bad"], "a\xEF\xBF\xBD\xEF\xBF\xBDz");
        EXPECT_EQ((*parsed)["nul"],
                  "a\xEF\xBF\xBD"
                  "b");
    }
    EXPECT_EQ(KXPropertyList::parse(KXPropertyList::toXML(nullptr)), KXJSON::object());
}

TEST(KXPropertyList, RefusesToWriteOrReadNestingBeyondTheLimit) {
    KXJSON deep = KXJSON::array();
    for (std::size_t i = 0; i < KXPropertyList::kMaximumDepth + 5; ++i) {
        deep = KXJSON::array({deep});
    }
    EXPECT_TRUE(KXPropertyList::toXML(deep).empty());
    EXPECT_TRUE(KXPropertyList::toBinary(deep).empty());

    std::string open, close;
    for (int i = 0; i < 100000; ++i) {
        open += "<array>";
        close += "</array>";
    }
    EXPECT_FALSE(KXPropertyList::parse("<plist>" + open + close + "</plist>").has_value());

    KXJSON shallow = KXJSON::array();
    for (int i = 0; i < 100; ++i) {
        shallow = KXJSON::array({shallow});
    }
    EXPECT_EQ(KXPropertyList::parse(KXPropertyList::toBinary(shallow)), shallow);
}

// Hand-made binary property lists: header, objects, offset table, 32-byte trailer.
namespace {

void appendBigEndian(std::string& s, std::uint64_t v, int n) {
    for (int i = n - 1; i >= 0; --i) {
        s.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
}

std::string binaryPlist(const std::vector<std::string>& objects, std::uint64_t top = 0,
                        std::uint64_t claimedCount = 0) {
    std::string s = "bplist00";
    std::vector<std::uint64_t> offsets;
    for (const auto& object : objects) {
        offsets.push_back(s.size());
        s += object;
    }
    const std::uint64_t table = s.size();
    for (auto offset : offsets) {
        appendBigEndian(s, offset, 4);
    }
    s.append(6, '\0');
    s.push_back(4);  // offset size
    s.push_back(4);  // reference size
    appendBigEndian(s, claimedCount != 0 ? claimedCount : objects.size(), 8);
    appendBigEndian(s, top, 8);
    appendBigEndian(s, table, 8);
    return s;
}

std::string arrayOf(std::initializer_list<std::uint32_t> refs) {
    std::string s(1, static_cast<char>(0xA0 | refs.size()));
    for (auto r : refs) {
        appendBigEndian(s, r, 4);
    }
    return s;
}

}  // namespace

TEST(KXPropertyList, RejectsWhatIsNotAPropertyListAndHostileBinaryStructures) {
    // A well-formed one first, so the builder is known to be right.
    ASSERT_EQ(KXPropertyList::parse(binaryPlist({arrayOf({1}), "\x09"})), KXJSON::array({true}));
    std::string dict(1, '\xD1');  // one key (object 1), one value (object 2)
    appendBigEndian(dict, 1, 4);
    appendBigEndian(dict, 2, 4);
    ASSERT_TRUE(KXPropertyList::parse(binaryPlist({dict, {'\x52', 'a', 'b'}, "\x09"})));
    const auto withCount = [](char marker, std::uint64_t count) {
        std::string object{marker, '\x13'};  // the count follows as an 8-byte integer
        appendBigEndian(object, count, 8);
        return binaryPlist({object});
    };
    // Shared objects that would expand exponentially: each array holds its successor twice;
    // and nesting a hundred thousand levels deep.
    std::vector<std::string> bomb, chain;
    for (std::uint32_t i = 0; i < 100000; ++i) {
        if (i < 60) {
            bomb.push_back(arrayOf({i + 1, i + 1}));
        }
        chain.push_back(arrayOf({i + 1}));
    }
    bomb.push_back(arrayOf({}));
    chain.push_back(arrayOf({}));

    const std::vector<std::pair<const char*, std::string>> inputs = {
        {"empty", ""},
        {"JSON", "{\"json\": true}"},
        {"HTML", "<html><body>Not found</body></html>"},
        {"XML declaration alone", "<?xml version=\"1.0\"?>"},
        {"open plist", "<plist>"},
        {"unterminated", "<plist><dict><key>a</key><string>unterminated"},
        {"invalid UTF-8", "<plist><string>\xFF\xFE</string></plist>"},
        {"binary header alone", "bplist00"},
        {"binary zeros", "bplist00" + std::string(40, '\0')},
        {"array containing itself", binaryPlist({arrayOf({0})})},
        {"reference past the last object", binaryPlist({arrayOf({7})})},
        {"key holding U+0000", binaryPlist({dict, {'\x52', 'a', '\0'}, "\x09"})},
        {"key that is not a string", binaryPlist({dict, "\x10\x05", "\x09"})},
        {"top object out of range", binaryPlist({arrayOf({})}, 3)},
        {"count beyond the offset table", binaryPlist({arrayOf({})}, 0, 1ULL << 60)},
        {"array of 2^62 elements", withCount('\xAF', 1ULL << 62)},
        {"data of 2^63 bytes", withCount('\x4F', 0x7FFFFFFFFFFFFFFFULL)},
        {"string of 2^63 bytes", withCount('\x5F', 0x7FFFFFFFFFFFFFFFULL)},
        {"UTF-16 string of 2^63 units", withCount('\x6F', 0x7FFFFFFFFFFFFFFFULL)},
        {"exponential expansion", binaryPlist(bomb)},
        {"deep nesting", binaryPlist(chain)},
    };
    for (const auto& [name, input] : inputs) {
        EXPECT_FALSE(KXPropertyList::parse(input).has_value()) << name;
    }
}

TEST(KXPropertyList, SurvivesTruncatedAndMutatedInput) {
    const std::string xml = KXPropertyList::toXML(sample());
    const auto binaryBytes = KXPropertyList::toBinary(sample());
    const std::string binary(binaryBytes.begin(), binaryBytes.end());

    // Every truncation of a binary plist loses its trailer: none may parse.
    for (std::size_t n = 0; n < binary.size(); ++n) {
        EXPECT_FALSE(KXPropertyList::parse(binary.substr(0, n)).has_value()) << n;
    }
    // A truncated XML plist parses only when the root dictionary is complete (what was cut
    // is no more than the closing </plist> tag).
    const std::size_t complete = xml.rfind("</dict>") + std::string("</dict>").size();
    for (std::size_t n = 0; n < complete; ++n) {
        EXPECT_FALSE(KXPropertyList::parse(xml.substr(0, n)).has_value())
            << xml.substr(n > 40 ? n - 40 : 0, 80);
    }

    // A few bytes changed: parsing returns something or nothing and never crashes or hangs, and
    // whatever it accepts can be written out again. (Random bytes are fuzz_config_loader's.)
    std::mt19937 random(12345);
    for (int round = 0; round < 8000; ++round) {
        std::string damaged = round % 2 == 0 ? xml : binary;
        for (int c = 0, changes = 1 + static_cast<int>(random() % 4); c < changes; ++c) {
            damaged[random() % damaged.size()] = static_cast<char>(random());
        }
        if (auto value = KXPropertyList::parse(damaged)) {
            EXPECT_TRUE(KXPropertyList::parse(KXPropertyList::toXML(*value)).has_value());
            EXPECT_TRUE(KXPropertyList::parse(KXPropertyList::toBinary(*value)).has_value());
        }
    }
}
