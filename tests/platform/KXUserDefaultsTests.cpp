// File-backed user defaults: typed reads, persistence across processes, atomic replacement
// under SIGKILL, and damaged files.
#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXPropertyList.h>

#include "KXCapturingSink.h"
#include "KXTestDirectories.h"
#include "platform/linux/internal/KXFileUtilities.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <thread>

namespace fs = std::filesystem;
using namespace std::chrono_literals;

namespace {

// A file of its own for each test, so the cases stay independent even when run in one process.
fs::path defaultsFile() {
    const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
    return KXTestDirectories::current() / "config" / test / "UserDefaults.plist";
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void writeFile(const fs::path& path, const std::string& bytes) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

// Content large enough that writing it takes many write() calls and a while on disk, cheap to
// make; `generation` is inside so a reader can tell which version it holds.
KXJSON bigContent(int generation) {
    return KXJSON{
        {"generation", generation},
        {"blob", std::string(1u << 20, static_cast<char>('a' + (generation % 26 + 26) % 26))},
        {"list", {generation, generation + 1, generation + 2}}};
}

// Runs `body` in a forked child and ends the child with _exit(), whatever happens, so that it
// never returns into the test runner (which would run other tests and clean up the test's
// directories from the child).
template <typename Body>
[[noreturn]] void inChild(Body body) {
    bool ok = false;
    try {
        ok = body();
    } catch (...) {
    }
    _exit(ok ? 0 : 1);
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
    for (int round = 0; round < rounds; ++round) {
        int ready[2];
        if (pipe(ready) != 0) {
            ADD_FAILURE() << "pipe failed";
            break;
        }
        const pid_t child = fork();
        if (child == -1) {
            ADD_FAILURE() << "fork failed";
            close(ready[0]);
            close(ready[1]);
            break;
        }
        if (child == 0) {
            inChild([&] {
                close(ready[0]);
                writeForever(round, [&] { (void)!write(ready[1], "r", 1); });
                return true;
            });
        }
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
        if (testing::Test::HasFatalFailure()) {
            break;
        }
        for (const auto& entry : fs::directory_iterator(directory)) {
            if (entry.path().filename().string().find(".tmp-") != std::string::npos) {
                ++interrupted;
                fs::remove(entry.path());
            }
        }
    }
    return interrupted;
}

}  // namespace

TEST(KXFileUserDefaults, TypedReadsConvertNumbersButNeverStrings) {
    KXFileUserDefaults defaults(defaultsFile());
    defaults.setObject("string", "42");
    defaults.setObject("yesString", "YES");
    defaults.setObject("int", 42);
    defaults.setObject("negative", -3);
    defaults.setObject("real", 2.9);
    defaults.setObject("negativeReal", -2.9);
    defaults.setObject("huge", 1e300);
    defaults.setObject("unsigned", std::numeric_limits<std::uint64_t>::max());
    defaults.setObject("true", true);
    defaults.setObject("zero", 0);
    defaults.setObject("strings", {"a", "b"});
    defaults.setObject("mixed", {"a", 1});

    EXPECT_EQ(defaults.stringForKey("string"), "42");
    EXPECT_EQ(defaults.stringForKey("int"), std::nullopt);
    EXPECT_EQ(defaults.stringForKey("missing"), std::nullopt);
    EXPECT_EQ(defaults.integerForKey("string"), 0) << "strings are not converted";
    EXPECT_FALSE(defaults.boolForKey("yesString"));
    EXPECT_EQ(defaults.integerForKey("int"), 42);
    EXPECT_EQ(defaults.integerForKey("negative"), -3);
    EXPECT_EQ(defaults.integerForKey("real"), 2);
    EXPECT_EQ(defaults.integerForKey("negativeReal"), -2);
    EXPECT_EQ(defaults.integerForKey("huge"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(defaults.integerForKey("unsigned"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(defaults.integerForKey("true"), 1);
    EXPECT_TRUE(defaults.boolForKey("true"));
    EXPECT_TRUE(defaults.boolForKey("int"));
    EXPECT_TRUE(defaults.boolForKey("real"));
    EXPECT_FALSE(defaults.boolForKey("zero"));
    EXPECT_FALSE(defaults.boolForKey("missing"));
    EXPECT_EQ(defaults.stringArrayForKey("strings"), (std::vector<std::string>{"a", "b"}));
    EXPECT_TRUE(defaults.stringArrayForKey("mixed").empty());

    defaults.setObject("int", nullptr);  // a null value removes the key
    EXPECT_TRUE(defaults.objectForKey("int").is_null());
}

TEST(KXFileUserDefaults, ChangesSurviveAProcessRestartOnlyAfterSynchronize) {
    const KXJSON token = KXJSON::binary({0xDE, 0xAD, 0xBE, 0xEF});
    // A child process writes; this process reads what it left.
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        inChild([&] {
            // Never destroyed: the child ends with _exit(), as a crash would, so nothing
            // flushes the last, unsynchronised change.
            auto* defaults = new KXFileUserDefaults(defaultsFile());
            defaults->setObject("guestId", "g-123");
            defaults->setObject("pushToken", token);
            defaults->setObject("nested", {{"list", {1, 2, 3}}});
            const bool ok = defaults->synchronize();
            defaults->setObject("unsynchronised", true);
            return ok;
        });
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

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

    struct stat info {};
    ASSERT_EQ(stat(defaultsFile().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
}

TEST(KXFileUserDefaults, AProcessKilledWhileSynchronisingLeavesTheOldOrTheNewFile) {
    const fs::path file = defaultsFile();
    {
        KXFileUserDefaults defaults(file);
        const KXJSON content = bigContent(-1);
        for (const auto& [key, value] : content.items()) {
            defaults.setObject(key, value);
        }
        ASSERT_TRUE(defaults.synchronize());
    }

    const int interrupted = killWritersAtRandomMoments(
        file.parent_path(), 10, 40000,
        [&](int round, const std::function<void()>& ready) {
            KXFileUserDefaults defaults(file);
            for (int generation = round * 1000;; ++generation) {
                const KXJSON content = bigContent(generation);
                for (const auto& [key, value] : content.items()) {
                    defaults.setObject(key, value);
                }
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
    fs::create_directories(file.parent_path());
    const std::vector<std::string> versions = {std::string(8u << 20, 'A'),
                                               std::string(5u << 20, 'B') + "tail"};
    const std::string original = "original";
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
    fs::create_directories(file.parent_path());
    // One left by a process that is gone, one by a process that is alive (this one).
    pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);
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
    std::vector<fs::path> asides;
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        if (entry.path().filename().string().rfind("UserDefaults.plist.damaged-", 0) == 0) {
            asides.push_back(entry.path());
        }
    }
    ASSERT_EQ(asides.size(), 1u);
    EXPECT_EQ(readFile(asides[0]), damaged) << "the damaged bytes are kept as they were";
    EXPECT_EQ(sink->linesContaining("damaged").size(), 1u);

    defaults.setObject("fresh", "start");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_EQ(KXFileUserDefaults(file).stringForKey("fresh"), "start");
    EXPECT_EQ(readFile(asides[0]), damaged);

    // A property list that is not a dictionary is damaged too; the earlier copy stays.
    writeFile(file, KXPropertyList::toXML(KXJSON::array({1, 2})));
    KXFileUserDefaults again(file);
    EXPECT_TRUE(again.dictionaryRepresentation().empty());
    int count = 0;
    for (const auto& entry : fs::directory_iterator(file.parent_path())) {
        count += entry.path().filename().string().find(".damaged-") != std::string::npos ? 1 : 0;
    }
    EXPECT_EQ(count, 2);
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
