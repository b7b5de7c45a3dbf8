// File-backed user defaults: typed reads, persistence across processes, atomic replacement
// under SIGKILL, and damaged files.
#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXPropertyList.h>

#include "KXCapturingSink.h"
#include "KXPlatformTestSupport.h"
#include "KXSealedFiles.h"
#include "platform/linux/internal/KXFileUtilities.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <functional>
#include <random>
#include <string>
#include <thread>

namespace fs = std::filesystem;
using namespace kxplatformtest;

namespace {

// A file of its own for each test, so the cases stay independent even when run in one process.
fs::path defaultsFile() {
    return kxtest::scratchDirectory("defaults") / "prefs" / "UserDefaults.plist";
}

// Content large enough that writing it takes many write() calls and a while on disk, cheap to
// make; `generation` is inside so a reader can tell which version it holds.
KXJSON bigContent(int generation) {
    return KXJSON{
        {"generation", generation},
        {"blob", std::string(1u << 20, static_cast<char>('a' + (generation % 26 + 26) % 26))},
        {"list", {generation, generation + 1, generation + 2}}};
}

void store(KXFileUserDefaults& defaults, const KXJSON& content) {
    for (const auto& [key, value] : content.items()) {
        defaults.setObject(key, value);
    }
}

/// Runs `rounds` rounds: a child process runs `writeForever` (which calls `ready` once its first
/// write is complete and then keeps writing), is killed at a random moment within `spread`, and
/// `check` inspects what it left. Temporary files of interrupted writes are counted and removed.
/// Stops early after a fatal failure; returns the number of kills that interrupted a write.
int killWritersAtRandomMoments(
    const fs::path& directory, int rounds, int spreadMicroseconds,
    const std::function<void(int, const std::function<void()>&)>& writeForever,
    const std::function<void(int)>& check) {
    std::mt19937 random(std::random_device{}());
    int interrupted = 0;
    for (int round = 0; round < rounds && !testing::Test::HasFatalFailure(); ++round) {
        std::array<int, 2> ready{};
        if (pipe(ready.data()) != 0) {
            ADD_FAILURE() << "pipe failed";
            break;
        }
        const pid_t child = startChild([&] {
            close(ready[0]);
            writeForever(round, [&] { (void)!write(ready[1], "r", 1); });
            return true;
        });
        close(ready[1]);
        char signal = 0;
        EXPECT_EQ(read(ready[0], &signal, 1), 1);
        close(ready[0]);
        std::this_thread::sleep_for(std::chrono::microseconds(random() % spreadMicroseconds));
        kill(child, SIGKILL);
        int status = 0;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFSIGNALED(status));
        check(round);
        for (const auto& leftover : entriesStartingWith(directory, "UserDefaults.plist.tmp-")) {
            ++interrupted;
            fs::remove(leftover);
        }
    }
    return interrupted;
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
        {"yesString", "YES", "YES", 0, false},
        {"int", 42, std::nullopt, 42, true},
        {"negative", -3, std::nullopt, -3, true},
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
    EXPECT_TRUE(defaults.objectForKey("int").is_null());
}

TEST(KXFileUserDefaults, ChangesSurviveAProcessRestartOnlyAfterSynchronize) {
    const KXJSON token = KXJSON::binary({0xDE, 0xAD, 0xBE, 0xEF});
    // A child process writes; this process reads what it left.
    ASSERT_TRUE(childSucceeded(startChild([&] {
        // Never destroyed: the child ends with _exit(), as a crash would, so nothing
        // flushes the last, unsynchronised change.
        auto* defaults = new KXFileUserDefaults(defaultsFile());
        defaults->setObject("guestId", "g-123");
        defaults->setObject("pushToken", token);
        defaults->setObject("nested", {{"list", {1, 2, 3}}});
        const bool ok = defaults->synchronize();
        defaults->setObject("unsynchronised", true);
        return ok;
    })));

    KXFileUserDefaults reopened(defaultsFile());
    EXPECT_EQ(reopened.stringForKey("guestId"), "g-123");
    EXPECT_EQ(reopened.objectForKey("pushToken"), token);
    EXPECT_EQ(reopened.objectForKey("nested"), (KXJSON{{"list", {1, 2, 3}}}));
    EXPECT_TRUE(reopened.objectForKey("unsynchronised").is_null());

    // Removing a key and synchronising removes it from the file too; destroying the store
    // flushes what is pending.
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

TEST(KXFileUserDefaults, AProcessKilledWhileSynchronisingLeavesTheOldOrTheNewFile) {
    const fs::path file = defaultsFile();
    {
        KXFileUserDefaults defaults(file);
        store(defaults, bigContent(-1));
        ASSERT_TRUE(defaults.synchronize());
    }
    const int interrupted = killWritersAtRandomMoments(
        file.parent_path(), 10, 40000,
        [&](int round, const std::function<void()>& ready) {
            KXFileUserDefaults defaults(file);
            for (int generation = round * 1000;; ++generation) {
                store(defaults, bigContent(generation));
                defaults.synchronize();
                if (generation == round * 1000) {
                    ready();  // in the loop: the kill may come now
                }
            }
        },
        [&](int round) {
            // Whatever moment the kill hit, the file is one complete version.
            const auto parsed = KXPropertyList::parse(readFile(file));
            ASSERT_TRUE(parsed.has_value()) << "torn file after round " << round;
            const int generation = parsed->at("generation").get<int>();
            ASSERT_TRUE(*parsed == bigContent(generation))
                << "a mixture of versions, round " << round;
            EXPECT_GE(generation, round * 1000) << "the child's first complete write is kept";
        });
    std::cout << "kills that interrupted a write: " << interrupted << " of 10\n";
}

// The replacement itself, with the time spent almost entirely in writing: whenever the kill
// lands, the file holds exactly one of the versions.
TEST(KXAtomicFile, AKillDuringReplacementLeavesExactlyTheOldOrTheNewBytes) {
    const fs::path file = defaultsFile();
    const std::vector<std::string> versions = {std::string(8u << 20, 'A'),
                                               std::string(5u << 20, 'B') + "tail"};
    const std::string original = "original";
    fs::create_directories(file.parent_path());
    ASSERT_TRUE(kxWriteFileAtomically(file, original, 0600));

    const int interrupted = killWritersAtRandomMoments(
        file.parent_path(), 12, 30000,
        [&](int, const std::function<void()>& ready) {
            ready();
            for (std::size_t i = 0;; ++i) {
                kxWriteFileAtomically(file, versions[i % 2], 0600);
            }
        },
        [&](int round) {
            const std::string bytes = readFile(file);
            ASSERT_TRUE(bytes == original || bytes == versions[0] || bytes == versions[1])
                << "torn file of " << bytes.size() << " bytes in round " << round;
        });
    std::cout << "kills that interrupted a write: " << interrupted << " of 12\n";
}

TEST(KXFileUserDefaults, LeftoversOfInterruptedWritesAreRemovedByTheNextStore) {
    const fs::path file = defaultsFile();
    // One left by a process that is gone, one by a process that is alive (this one).
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

TEST(KXFileUserDefaults, ADamagedFileIsMovedAsideAndTheStoreStartsEmpty) {
    auto sink = KXCapturingSink::install();
    const fs::path file = defaultsFile();
    const std::string damaged = "<?xml version=\"1.0\"?><plist><dict><key>guestId</key><str";
    writeFile(file, damaged);

    KXFileUserDefaults defaults(file);
    EXPECT_TRUE(defaults.dictionaryRepresentation().empty());
    EXPECT_FALSE(fs::exists(file));
    const auto asides = entriesStartingWith(file.parent_path(), "UserDefaults.plist.damaged-");
    ASSERT_EQ(asides.size(), 1u);
    EXPECT_EQ(readFile(asides[0]), damaged) << "the damaged bytes are kept as they were";
    EXPECT_EQ(sink->linesContaining("damaged").size(), 1u);

    defaults.setObject("fresh", "start");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(KXFileUserDefaults(file).stringForKey("fresh"), "start");
    EXPECT_EQ(readFile(asides[0]), damaged);

    // A property list that is not a dictionary is damaged too; the earlier copy stays.
    writeFile(file, KXPropertyList::toXML(KXJSON::array({1, 2})));
    EXPECT_TRUE(KXFileUserDefaults(file).dictionaryRepresentation().empty());
    EXPECT_EQ(entriesStartingWith(file.parent_path(), "UserDefaults.plist.damaged-").size(), 2u);
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
