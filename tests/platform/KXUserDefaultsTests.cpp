#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXPropertyList.h>

#include "KXCapturingSink.h"
#include "KXPlatformTestSupport.h"
#include "KXSealedFiles.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <random>
#include <string>
#include <thread>

namespace fs = std::filesystem;
using namespace kxplatformtest;

namespace {

fs::path defaultsFile(const std::string& name = "defaults") {
    return kxtest::scratchDirectory(name) / "prefs" / "UserDefaults.plist";
}

}  // namespace

TEST(KXFileUserDefaults, TypedReadsConvertNumbersButNeverStrings) {
    struct Row {
        const char* key;
        KXJSON value;
        std::optional<std::string> string;
        std::int64_t integer;
        bool boolean;
    };
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    const std::vector<Row> rows = {
        {"string", "42", "42", 0, false},  // strings are not converted
        {"int", 42, std::nullopt, 42, true},
        {"real", 2.9, std::nullopt, 2, true},
        {"negativeReal", -2.9, std::nullopt, -2, true},
        {"huge", 1e300, std::nullopt, kMax, true},
        {"unsigned", std::numeric_limits<std::uint64_t>::max(), std::nullopt, kMax, true},
        {"true", true, std::nullopt, 1, true},
        {"zero", 0, std::nullopt, 0, false},
        {"missing", nullptr, std::nullopt, 0, false},
    };
    KXFileUserDefaults defaults(defaultsFile());
    for (const Row& row : rows) {
        defaults.setObject(row.key, row.value);
    }
    for (const Row& row : rows) {
        EXPECT_EQ(defaults.stringForKey(row.key), row.string) << row.key;
        EXPECT_EQ(defaults.integerForKey(row.key), row.integer) << row.key;
        EXPECT_EQ(defaults.boolForKey(row.key), row.boolean) << row.key;
    }
    defaults.setObject("strings", {"a", "b"});
    defaults.setObject("mixed", {"a", 1});
    EXPECT_EQ(defaults.stringArrayForKey("strings"), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(defaults.stringArrayForKey("mixed").empty());

    defaults.setObject("int", nullptr);  // a null value removes the key
    EXPECT_FALSE(defaults.dictionaryRepresentation().contains("int"));
}

TEST(KXFileUserDefaults, ChangesSurviveAProcessRestartOnlyAfterSynchronize) {
    const KXJSON token = KXJSON::binary({0xDE, 0xAD, 0xBE, 0xEF});
    ASSERT_TRUE(childSucceeded(startChild([&] {
        // Never destroyed: the child ends with _exit(), as a crash would, so nothing
        // flushes the last, unsynchronised change.
        auto* defaults = new KXFileUserDefaults(defaultsFile());
        defaults->setObject("guestId", "g-123");
        defaults->setObject("pushToken", token);
        const bool ok = defaults->synchronize();
        defaults->setObject("unsynchronised", true);
        return ok;
    })));

    KXFileUserDefaults reopened(defaultsFile());
    EXPECT_EQ(reopened.stringForKey("guestId"), "g-123");
    EXPECT_EQ(reopened.objectForKey("pushToken"), token);
    EXPECT_TRUE(reopened.objectForKey("unsynchronised").is_null());

    // Destroying the store flushes what is pending.
    reopened.removeObject("guestId");
    EXPECT_TRUE(reopened.synchronize());
    {
        KXFileUserDefaults again(defaultsFile());
        EXPECT_FALSE(again.stringForKey("guestId").has_value());
        again.setObject("flushed", 1);
    }
    EXPECT_EQ(KXFileUserDefaults(defaultsFile()).integerForKey("flushed"), 1);
    EXPECT_EQ(modeOf(defaultsFile()), 0600u);
}

// A child keeps replacing the file with 1 MiB versions and is killed at a random moment: the
// file is always one complete version, never torn or a mixture.
TEST(KXFileUserDefaults, AProcessKilledWhileSynchronisingLeavesTheOldOrTheNewFile) {
    const fs::path file = defaultsFile();
    auto content = [](int generation) {
        return KXJSON{{"generation", generation},
                      {"blob", std::string(1u << 20, static_cast<char>('a' + generation % 26))}};
    };
    std::mt19937 random(std::random_device{}());
    for (int round = 1; round <= 10; ++round) {
        std::array<int, 2> ready{};
        ASSERT_EQ(pipe(ready.data()), 0);
        const pid_t child = startChild([&] {
            KXFileUserDefaults defaults(file);
            for (int generation = round * 1000;; ++generation) {
                const KXJSON values = content(generation);  // items() does not keep it alive
                for (const auto& [key, value] : values.items()) {
                    defaults.setObject(key, value);
                }
                defaults.synchronize();
                if (generation == round * 1000) {
                    (void)!write(ready[1], "r", 1);  // from now on the kill may come
                }
            }
            return true;
        });
        close(ready[1]);
        char signal = 0;
        EXPECT_EQ(read(ready[0], &signal, 1), 1);
        close(ready[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 40000));
        kill(child, SIGKILL);
        EXPECT_FALSE(childSucceeded(child));

        const auto parsed = KXPropertyList::parse(readFile(file));
        ASSERT_TRUE(parsed.has_value()) << "torn file after round " << round;
        const int generation = parsed->at("generation").get<int>();
        ASSERT_TRUE(*parsed == content(generation)) << "a mixture of versions, round " << round;
        EXPECT_GE(generation, round * 1000) << "the child's first complete write is kept";
    }
}

TEST(KXFileUserDefaults, LeftoversOfInterruptedWritesAreRemovedByTheNextStore) {
    const fs::path file = defaultsFile();
    const pid_t gone = startChild([] { return true; });
    childSucceeded(gone);
    const fs::path stale = file.string() + ".tmp-" + std::to_string(gone) + "-0";
    const fs::path live = file.string() + ".tmp-" + std::to_string(getpid()) + "-99";
    writeFile(stale, "<plist><dict><key>half");
    writeFile(live, "<plist><dict><key>in progress");
    KXFileUserDefaults defaults(file);
    EXPECT_FALSE(fs::exists(stale));
    EXPECT_TRUE(fs::exists(live)) << "a write still under way in a live process is left alone";
}

// The bytes are moved aside as they were; an earlier damaged copy is never replaced.
TEST(KXFileUserDefaults, ADamagedFileIsMovedAsideAndTheStoreStartsEmpty) {
    const std::vector<std::pair<const char*, std::string>> damages = {
        {"truncated", "<?xml version=\"1.0\"?><plist><dict><key>guestId</key><str"},
        {"not a dictionary", KXPropertyList::toXML(KXJSON::array({1, 2}))},
        {"empty", ""},
    };
    for (const auto& [name, damaged] : damages) {
        SCOPED_TRACE(name);
        auto sink = KXCapturingSink::install();
        const fs::path file = defaultsFile(name);
        writeFile(file, damaged);
        KXFileUserDefaults defaults(file);
        EXPECT_TRUE(defaults.dictionaryRepresentation().empty());
        EXPECT_FALSE(fs::exists(file));
        const auto asides = entriesStartingWith(file.parent_path(), "UserDefaults.plist.damaged-");
        ASSERT_EQ(asides.size(), 1u);
        EXPECT_EQ(readFile(asides[0]), damaged);
        EXPECT_EQ(sink->linesContaining("damaged").size(), 1u);

        defaults.setObject("fresh", "start");
        EXPECT_TRUE(defaults.synchronize());
        EXPECT_EQ(KXFileUserDefaults(file).stringForKey("fresh"), "start");
        writeFile(file, damaged);
        EXPECT_TRUE(KXFileUserDefaults(file).dictionaryRepresentation().empty());
        EXPECT_EQ(entriesStartingWith(file.parent_path(), "UserDefaults.plist.damaged-").size(),
                  2u);
        EXPECT_EQ(readFile(asides[0]), damaged);
    }
}

TEST(KXFileUserDefaults, AFailedWriteKeepsTheChangesPending) {
    const fs::path file = defaultsFile();
    KXFileUserDefaults defaults(file);
    defaults.setObject("key", "value");
    // A file where the directory should be: nothing can be written (even by root).
    writeFile(file.parent_path(), "not a directory");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(defaults.stringForKey("key"), "value");

    fs::remove(file.parent_path());
    EXPECT_TRUE(defaults.synchronize()) << "the pending change is written once possible";
    EXPECT_EQ(KXFileUserDefaults(file).stringForKey("key"), "value");
}

TEST(KXFileUserDefaults, ManyThreadsMayReadAndWriteAtOnce) {
    KXFileUserDefaults defaults(defaultsFile());
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 200; ++i) {
                defaults.setObject("k" + std::to_string(t), i);
                (void)defaults.integerForKey("k" + std::to_string((t + 1) % 4));
                if (i % 50 == 0) {
                    defaults.synchronize();
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(defaults.synchronize());
    KXFileUserDefaults reopened(defaultsFile());
    for (int t = 0; t < 4; ++t) {
        EXPECT_EQ(reopened.integerForKey("k" + std::to_string(t)), 199);
    }
}
