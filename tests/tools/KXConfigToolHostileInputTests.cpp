#include "KXToolTestFixture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <thread>

using namespace kxtools;
namespace fs = std::filesystem;

namespace {

const KXJSON kGoodSettings = {{"appId", "a1"},
                              {"stageClientId", "s1"},
                              {"stageClientSecret", "s2"},
                              {"inProduction", false},
                              {"analyticsSessionInterval", 300}};

fs::perms permissionsOf(const fs::path& path) {
    return fs::status(path).permissions() & fs::perms::mask;
}

std::set<std::string> namesIn(const fs::path& directory) {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.insert(entry.path().filename().string());
    }
    return names;
}

constexpr fs::perms kOwnerOnly = fs::perms::owner_read | fs::perms::owner_write;

class KXConfigToolHostileInput : public testing::Test {
protected:
    fs::path directory = kxtest::scratchDirectory("kxconfig-hostile");
    mode_t previousMask = ::umask(022);

    ~KXConfigToolHostileInput() override { ::umask(previousMask); }

    /// Seals `text` (JSON or a property list) to `output`; the tool's result.
    ProcessResult seal(const std::string& text, const fs::path& output) {
        const fs::path input = directory / "input";
        kxtest::writeText(input, text);
        const ProcessResult result =
            kxconfig({"seal", "--key", kKey, input.string(), "-o", output.string()});
        fs::remove(input);
        return result;
    }
};

}  // namespace

TEST_F(KXConfigToolHostileInput, OutputsAreReplacedWholeOrWrittenInPlaceButNeverFollowedBlindly) {
    const std::string plain = "secret settings\n";
    kxtest::writeText(directory / "plain", plain);
    kxtest::sealWithOpenSSL(directory / "plain", directory / "sealed", "pw");
    const auto salted = [&](const char* command, const char* input, const fs::path& output) {
        const ProcessResult result =
            kxconfig({command, "--format", "salted", "--password", "pw", "-i",
                      (directory / input).string(), "-o", (directory / output).string()});
        EXPECT_EQ(result.exitCode, 0) << output << result.err;
    };
    const fs::perms groupReadable = kOwnerOnly | fs::perms::group_read;

    // A link to a file stays a link and the file keeps its mode.
    kxtest::writeText(directory / "real.enc", "old");
    fs::permissions(directory / "real.enc", groupReadable);
    fs::create_symlink("real.enc", directory / "link.enc");
    salted("encrypt", "plain", "link.enc");
    EXPECT_TRUE(fs::is_symlink(directory / "link.enc"));
    EXPECT_EQ(readText(directory / "real.enc").rfind("Salted__", 0), 0u);
    EXPECT_EQ(permissionsOf(directory / "real.enc"), groupReadable);

    // A planted temporary link is not written through, and a new file follows the umask.
    kxtest::writeText(directory / "victim", "untouched");
    fs::create_symlink("victim", directory / "out.enc.tmp");
    salted("encrypt", "plain", "out.enc");
    EXPECT_EQ(readText(directory / "victim"), "untouched");
    EXPECT_TRUE(fs::is_symlink(directory / "out.enc.tmp"));
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(directory / "out.enc")));
    EXPECT_EQ(permissionsOf(directory / "out.enc"), groupReadable | fs::perms::others_read);

    // Opened data over an owner-only file stays owner-only; new opened data and a new sealed
    // configuration are owner-only.
    kxtest::writeText(directory / "opened", "old secret");
    fs::permissions(directory / "opened", kOwnerOnly);
    salted("decrypt", "sealed", "opened");
    EXPECT_EQ(readText(directory / "opened"), plain);
    EXPECT_EQ(permissionsOf(directory / "opened"), kOwnerOnly);
    salted("decrypt", "sealed", "new");
    EXPECT_EQ(permissionsOf(directory / "new"), kOwnerOnly);
    ASSERT_EQ(seal(kGoodSettings.dump(), directory / "KXConfig.enc").exitCode, 0);
    EXPECT_EQ(permissionsOf(directory / "KXConfig.enc"), kOwnerOnly);

    // A pipe receives the output and stays a pipe.
    ASSERT_EQ(::mkfifo((directory / "pipe").c_str(), 0600), 0);
    std::string received;
    std::thread reader([&] { received = readText(directory / "pipe"); });
    salted("decrypt", "sealed", "pipe");
    reader.join();
    EXPECT_EQ(received, plain);
    EXPECT_EQ(fs::status(directory / "pipe").type(), fs::file_type::fifo);

    // A device is written to, not replaced.
    salted("encrypt", "plain", "/dev/null");
    EXPECT_TRUE(fs::is_character_file("/dev/null"));

    // No temporary file is left behind.
    EXPECT_EQ(namesIn(directory), (std::set<std::string>{"plain", "sealed", "real.enc", "link.enc",
                                                         "victim", "out.enc.tmp", "out.enc",
                                                         "opened", "new", "KXConfig.enc", "pipe"}));
}

TEST_F(KXConfigToolHostileInput, AKilledRunLeavesNoTemporaryFileBehind) {
    const fs::path input = directory / "large";
    kxtest::writeText(input, std::string(std::size_t{48} << 20, 'x'));
    const fs::path output = directory / "large.enc";
    for (int delay : {20, 50, 80, 120, 160, 220, 300, 400}) {
        // timeout sends SIGKILL to kxconfig `delay` ms after starting it (status 137) unless it
        // finished before.
        const int status = kxtest::run("timeout -s KILL " + std::to_string(delay / 1000.0) + " '" +
                                       kxtest::builtProgram("tools/kxconfig/kxconfig").string() +
                                       "' encrypt --format salted --password pw -i '" +
                                       input.string() + "' -o '" + output.string() + "'");
        EXPECT_TRUE(status == 0 || status == 137) << status;
        std::set<std::string> names = namesIn(directory);
        names.erase("large.enc");  // finished before the kill: complete, never torn
        EXPECT_EQ(names, std::set<std::string>{"large"}) << "killed after " << delay << " ms";
        if (fs::exists(output)) {
            EXPECT_EQ(fs::file_size(output) % 16, 0u);
        }
    }
}

TEST_F(KXConfigToolHostileInput, SealRefusesWhatItCannotSealUnchangedAndKeepsTheOldFile) {
    const fs::path output = directory / "KXConfig.enc";
    ASSERT_EQ(seal(kGoodSettings.dump(), output).exitCode, 0);
    const auto good = kxtest::readBytes(output);

    const std::string deep = "{\"appId\":" + std::string(513, '[') + std::string(513, ']') + "}";
    const std::vector<std::pair<std::string, std::string>> cases = {
        // input, reason
        {deep, "JSON nested deeper than 512 levels"},
        {R"({"inProduction": false, "appId": "a", "inProduction": true})",
         "duplicate key \"inProduction\""},
        {R"({"appId": null})", "cannot be sealed unchanged"},
        {"{\"appId\": \"a\"} trailing", "neither a property-list dictionary nor a JSON object"},
        {"[1, 2]", "neither a property-list dictionary nor a JSON object"},
    };
    for (const auto& [input, reason] : cases) {
        const ProcessResult result = seal(input, output);
        EXPECT_EQ(result.exitCode, 1) << reason;
        EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
        EXPECT_EQ(kxtest::readBytes(output), good) << reason;
    }
}

TEST_F(KXConfigToolHostileInput, CheckReportsEverySettingTheLibraryWouldNotReadAsWritten) {
    const std::string credentials =
        "<key>stageClientId</key><string>s1</string>"
        "<key>stageClientSecret</key><string>s2</string>";
    // XML property-list entries and the problems check reports in them.
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {credentials + "<key>inProduction</key><false/><key>analyticsSessionInterval</key>"
                       "<integer>90</integer><key>favouriteColour</key><string>blue</string>",
         {}},
        {credentials + "<key>inProduction</key><string>NO</string>"
                       "<key>analyticsEnabled</key><real>2.5</real>"
                       "<key>autoGuestEnabled</key><date>2024-01-01T00:00:00Z</date>",
         {"\"inProduction\" should be true or false, not a string (\"NO\"): the library reads "
          "false",
          "\"analyticsEnabled\" should be true or false, not a number (2.5): the library reads "
          "true",
          "\"autoGuestEnabled\" should be true or false, not a string "
          "(\"2024-01-01T00:00:00Z\"): the library reads true"}},
        {credentials + "<key>appId</key><dict><key>a</key><integer>1</integer></dict>"
                       "<key>inboxDomainId</key><integer>7</integer>",
         {"\"appId\" should be a string, not a dictionary: the library reads no value",
          "\"inboxDomainId\" should be a string, not an integer (7): the library reads its "
          "decimal text"}},
        {credentials + "<key>analyticsSessionInterval</key><real>1e30</real>",
         {"\"analyticsSessionInterval\" should be a whole number of seconds, not a number "
          "(1e+30): the library reads 9223372036854775807"}},
        {credentials + "<key>analyticsSessionInterval</key><integer>89</integer>",
         {"\"analyticsSessionInterval\" is below the minimum of 90 seconds: the library uses 90"}},
        {"<key>stageClientId</key><string>s1</string>",
         {"\"stageClientSecret\" is missing: the library cannot authenticate in staging"}},
        {credentials + "<key>inProduction</key><true/><key>prodClientId</key><string>p</string>",
         {"\"prodClientSecret\" is missing: the library cannot authenticate in production"}},
    };
    const fs::path output = directory / "KXConfig.enc";
    for (const auto& [entries, problems] : cases) {
        ASSERT_EQ(seal(kxtest::xmlPropertyList(entries), output).exitCode, 0) << entries;
        const ProcessResult result = kxconfig({"check", "--key", kKey, output.string()});
        EXPECT_EQ(result.exitCode, problems.empty() ? 0 : 1) << entries << result.err;
        EXPECT_EQ(KXJSON::parse(result.out).size(), 13u) << "the settings are printed anyway";
        for (const std::string& problem : problems) {
            EXPECT_NE(result.err.find("kxconfig: error: " + problem + "\n"), std::string::npos)
                << result.err;
        }
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'),
                  static_cast<std::ptrdiff_t>(problems.size() + (problems.empty() ? 1 : 0)))
            << result.err;
    }
}
