#include "KXCapturingSink.h"

#include <KXClientFramework/KXDiskLogger.h>
#include <KXClientFramework/KXGlobals.h>
#include <KXClientFramework/KXLog.h>
#include <KXClientFramework/KXPlatform.h>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

// Counts how often it is formatted, to prove gated lines are never formatted.
struct FormatProbe {
    static inline std::atomic<int> formatted{0};
};

struct LogEmitter {
    static int emitAllLevels() {
        KX_LOG_ERROR("error {}", 1);
        KX_LOG_WARN("warn {}", 2);
        KX_LOG_INFO("info {}", 3);
        KX_LOG_DEBUG("debug {}", 4);
        return __LINE__ - 4;  // line of the ERROR statement
    }
};

std::filesystem::path cachesDirectory() {
    return KXPlatform::current().cachesDirectory();
}

std::string readFile(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

class KXLogTest : public testing::Test {
protected:
    void SetUp() override {
        kxLoggingEnabled = true;
        kxLoggingToDiskEnabled = false;
        kxLogLevel = 4;
        std::filesystem::remove_all(KXDiskLogger::logFilePath(cachesDirectory()));
    }
    void TearDown() override {
        kxLoggingEnabled = true;
        kxLoggingToDiskEnabled = false;
        kxLogLevel = 1;
    }
    KXCapturingSink::Guard sink = KXCapturingSink::install();
};

}  // namespace

template <>
struct fmt::formatter<FormatProbe> : fmt::formatter<std::string_view> {
    auto format(const FormatProbe&, fmt::format_context& context) const {
        ++FormatProbe::formatted;
        return fmt::formatter<std::string_view>::format("probe", context);
    }
};

TEST_F(KXLogTest, LevelSettingGatesEachLevel) {
    struct Row {
        std::int64_t setting;
        std::vector<std::string> words;
    };
    const Row table[] = {
        {-3, {}},
        {0, {}},
        {1, {"[ERROR]"}},
        {2, {"[ERROR]", "[WARN]"}},
        {3, {"[ERROR]", "[WARN]", "[INFO]"}},
        {4, {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"}},
        {99, {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"}},
    };
    for (const auto& row : table) {
        sink->clear();
        kxLogLevel = row.setting;
        LogEmitter::emitAllLevels();
        const auto lines = sink->lines();
        ASSERT_EQ(lines.size(), row.words.size()) << "level setting " << row.setting;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].rfind(row.words[i], 0), 0u) << lines[i];
        }
    }
    // A line carries its level, function and line.
    sink->clear();
    kxLogLevel = 1;
    const int line = LogEmitter::emitAllLevels();
    EXPECT_EQ(sink->lines(),
              std::vector<std::string>{"[ERROR] {anonymous}::LogEmitter::emitAllLevels [Line " +
                                       std::to_string(line) + "] error 1"});
}

TEST_F(KXLogTest, GatedLinesAreNeverFormattedNorWritten) {
    FormatProbe::formatted = 0;
    kxLogLevel = 3;
    KX_LOG_DEBUG("{}", FormatProbe{});
    kxLoggingEnabled = false;
    kxLoggingToDiskEnabled = true;
    kxLogLevel = 4;
    KX_LOG_ERROR("{}", FormatProbe{});
    EXPECT_EQ(FormatProbe::formatted, 0);
    EXPECT_TRUE(sink->lines().empty());
    EXPECT_FALSE(std::filesystem::exists(KXDiskLogger::logFilePath(cachesDirectory())));

    kxLoggingEnabled = true;
    kxLoggingToDiskEnabled = false;
    KX_LOG_DEBUG("{}", FormatProbe{});
    EXPECT_EQ(FormatProbe::formatted, 1);
}

TEST(KXLogFunctionName, StripsReturnTypeParametersAndLambdaSuffix) {
    EXPECT_EQ(KXLog::functionName("void KXDevice::saveDeviceToken(const std::string&)"),
              "KXDevice::saveDeviceToken");
    EXPECT_EQ(KXLog::functionName("std::function<void(int)> KXA::make(int) const"), "KXA::make");
    EXPECT_EQ(KXLog::functionName("KXFoo::bar()::<lambda()>"), "KXFoo::bar");
    EXPECT_EQ(KXLog::functionName("static std::map<int, std::pair<int, int> > KXB::c()"), "KXB::c");
    EXPECT_EQ(KXLog::functionName("main"), "main");
}

TEST_F(KXLogTest, DiskLoggingAppendsEveryWrittenLine) {
    kxLoggingToDiskEnabled = true;
    kxLogLevel = 2;
    LogEmitter::emitAllLevels();
    LogEmitter::emitAllLevels();

    // Each line goes to the sink, then a new disk logger announces itself and appends it.
    const auto lines = sink->lines();
    ASSERT_EQ(lines.size(), 8u);
    for (std::size_t i = 1; i < lines.size(); i += 2) {
        EXPECT_EQ(lines[i], "DISKLogger Created");
    }
    const std::string file = readFile(KXDiskLogger::logFilePath(cachesDirectory()));
    EXPECT_EQ(file, lines[0] + "\n" + lines[2] + "\n" + lines[4] + "\n" + lines[6] + "\n");
    EXPECT_EQ(KXDiskLogger::logFilePath(cachesDirectory()).filename(), "ZandrelSDK.log");
}

TEST_F(KXLogTest, ClearLogFromDiskKeepsTheFileAndAnUnwritableFileLosesTheLine) {
    KXDiskLogger logger(cachesDirectory());
    logger.writeLogToDisk("first");
    logger.clearLogFromDisk();
    KXDiskLogger(cachesDirectory()).writeLogToDisk("second");
    EXPECT_EQ(readFile(KXDiskLogger::logFilePath(cachesDirectory())), "first\nsecond\n");
    EXPECT_EQ(sink->linesContaining("error: (null)").size(), 1u);

    // A log file that cannot be written loses the line quietly.
    const auto path = KXDiskLogger::logFilePath(cachesDirectory());
    std::filesystem::remove(path);
    std::filesystem::create_directories(path);  // a directory where the file should be
    KXDiskLogger(cachesDirectory()).writeLogToDisk("lost");
    EXPECT_TRUE(std::filesystem::is_directory(path));
}

TEST_F(KXLogTest, TheDiskLogAndTheFoldersItCreatesAreOwnerOnly) {
    namespace fs = std::filesystem;
    const fs::path outer = cachesDirectory() / "outer";
    const fs::path folder = outer / "inner";
    const fs::path path = KXDiskLogger::logFilePath(folder);
    fs::remove_all(outer);
    const mode_t previous = ::umask(0);  // nothing hides wider permissions from the checks
    KXDiskLogger(folder).writeLogToDisk("token abc");
    ::umask(previous);
    for (const fs::path& created : {outer, folder}) {
        EXPECT_EQ(fs::status(created).permissions(), fs::perms::owner_all) << created;
    }
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    // A log an older version left readable by everyone is narrowed at the next line.
    fs::permissions(path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                              fs::perms::others_read);
    KXDiskLogger(folder).writeLogToDisk("second");
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(readFile(path), "token abc\nsecond\n");

    // A symbolic link in the log's place is not followed.
    const fs::path elsewhere = folder / "elsewhere";
    fs::remove(path);
    fs::create_symlink(elsewhere, path);
    KXDiskLogger(folder).writeLogToDisk("diverted");
    EXPECT_FALSE(fs::exists(elsewhere));
}
