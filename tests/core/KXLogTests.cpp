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

namespace fs = std::filesystem;

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

std::string readFile(const fs::path& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class KXLogTest : public testing::Test {
protected:
    void SetUp() override {
        kxLoggingEnabled = true;
        kxLoggingToDiskEnabled = false;
        kxLogLevel = 4;
        fs::remove_all(logFile);
    }
    void TearDown() override {
        kxLoggingToDiskEnabled = false;
        kxLogLevel = 1;
    }
    KXCapturingSink::Guard sink = KXCapturingSink::install();
    const fs::path caches = KXPlatform::current().cachesDirectory();
    const fs::path logFile = KXDiskLogger::logFilePath(caches);
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
    const std::vector<std::string> words = {"[ERROR]", "[WARN]", "[INFO]", "[DEBUG]"};
    // The level setting, and how many of the four levels it lets through.
    for (const auto& [setting, written] : std::vector<std::pair<std::int64_t, std::size_t>>{
             {-3, 0}, {0, 0}, {1, 1}, {2, 2}, {3, 3}, {4, 4}, {99, 4}}) {
        sink->clear();
        kxLogLevel = setting;
        LogEmitter::emitAllLevels();
        const auto lines = sink->lines();
        ASSERT_EQ(lines.size(), written) << "level setting " << setting;
        for (std::size_t i = 0; i < lines.size(); ++i) {
            EXPECT_EQ(lines[i].rfind(words[i], 0), 0u) << lines[i];
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
    EXPECT_FALSE(fs::exists(logFile));

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

TEST_F(KXLogTest, DiskLoggingAppendsEveryWrittenLineAndClearingKeepsTheFile) {
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
    EXPECT_EQ(logFile.filename(), "ZandrelSDK.log");
    const std::string written = lines[0] + "\n" + lines[2] + "\n" + lines[4] + "\n" + lines[6];
    EXPECT_EQ(readFile(logFile), written + "\n");

    sink->clear();
    KXDiskLogger(caches).clearLogFromDisk();
    KXDiskLogger(caches).writeLogToDisk("second");
    EXPECT_EQ(readFile(logFile), written + "\nsecond\n");
    EXPECT_EQ(sink->linesContaining("error: (null)").size(), 1u);

    // A log file that cannot be written loses the line quietly.
    fs::remove(logFile);
    fs::create_directories(logFile);  // a directory where the file should be
    KXDiskLogger(caches).writeLogToDisk("lost");
    EXPECT_TRUE(fs::is_directory(logFile));
}

TEST_F(KXLogTest, TheDiskLogAndTheFoldersItCreatesAreOwnerOnly) {
    const fs::path outer = caches / "outer";
    const fs::path folder = outer / "inner";
    const fs::path path = KXDiskLogger::logFilePath(folder);
    fs::remove_all(outer);
    const mode_t previous = ::umask(0);  // nothing hides wider permissions from the checks
    KXDiskLogger(folder).writeLogToDisk("token abc");
    ::umask(previous);
    for (const fs::path& created : {outer, folder}) {
        EXPECT_EQ(fs::status(created).permissions(), fs::perms::owner_all) << created;
    }
    const auto ownerOnly = fs::perms::owner_read | fs::perms::owner_write;
    EXPECT_EQ(fs::status(path).permissions(), ownerOnly);

    // A log an older version left readable by everyone is narrowed at the next line.
    fs::permissions(path, ownerOnly | fs::perms::group_read | fs::perms::others_read);
    KXDiskLogger(folder).writeLogToDisk("second");
    EXPECT_EQ(fs::status(path).permissions(), ownerOnly);
    EXPECT_EQ(readFile(path), "token abc\nsecond\n");

    // A symbolic link in the log's place is not followed.
    const fs::path elsewhere = folder / "elsewhere";
    fs::remove(path);
    fs::create_symlink(elsewhere, path);
    KXDiskLogger(folder).writeLogToDisk("diverted");
    EXPECT_FALSE(fs::exists(elsewhere));
}
