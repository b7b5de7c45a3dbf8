// The file-backed keychain: add/update/copy/remove semantics, owner-only permissions from the
// first byte, persistence, and damaged files.
#include <KXClientFramework/KXFileKeychain.h>

#include "KXCapturingSink.h"
#include "KXTestDirectories.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <thread>

namespace fs = std::filesystem;

namespace {

using Bytes = std::vector<std::uint8_t>;

fs::path keychainFile() {
    const std::string test = testing::UnitTest::GetInstance()->current_test_info()->name();
    return KXTestDirectories::current() / "data" / test / "app" / "keychain.plist";
}

mode_t modeOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

}  // namespace

TEST(KXFileKeychain, AddCopyUpdateRemoveFollowTheStatusCodes) {
    KXFileKeychain keychain(keychainFile());
    KXKeychainStatus status = KXKeychainStatus::Success;
    EXPECT_FALSE(keychain.copy({"svc", "alice"}, &status).has_value());
    EXPECT_EQ(status, KXKeychainStatus::ItemNotFound);
    EXPECT_FALSE(fs::exists(keychainFile().parent_path())) << "a read creates nothing";

    EXPECT_EQ(keychain.add({"svc", "alice"}, {1, 2, 3}), KXKeychainStatus::Success);
    EXPECT_EQ(keychain.add({"svc", "bob"}, {4}), KXKeychainStatus::Success);
    EXPECT_EQ(keychain.add({"other", std::nullopt}, {5}, kSecAttrAccessibleAfterFirstUnlock),
              KXKeychainStatus::Success);
    EXPECT_EQ(keychain.add({"svc", "alice"}, {9}), KXKeychainStatus::DuplicateItem);
    EXPECT_EQ(keychain.add({"other", ""}, {9}), KXKeychainStatus::DuplicateItem)
        << "an item without an account has the empty account";

    EXPECT_EQ(keychain.copy({"svc", "alice"}, &status), Bytes({1, 2, 3}));
    EXPECT_EQ(status, KXKeychainStatus::Success);
    EXPECT_EQ(keychain.copy({"svc", "bob"}), Bytes({4}));
    EXPECT_EQ(keychain.copy({"svc", std::nullopt}), Bytes({1, 2, 3}))
        << "without an account the first item of the service matches";
    EXPECT_FALSE(keychain.copy({"svc", "carol"}).has_value());

    EXPECT_EQ(keychain.update({"svc", "carol"}, {7}), KXKeychainStatus::ItemNotFound);
    EXPECT_EQ(keychain.update({"svc", "bob"}, {8, 8}), KXKeychainStatus::Success);
    EXPECT_EQ(keychain.copy({"svc", "bob"}), Bytes({8, 8}));
    EXPECT_EQ(keychain.copy({"svc", "alice"}), Bytes({1, 2, 3})) << "other items are untouched";
    EXPECT_EQ(keychain.copy({"other", std::nullopt}), Bytes({5}));

    EXPECT_EQ(keychain.remove({"svc", "carol"}), KXKeychainStatus::ItemNotFound);
    EXPECT_EQ(keychain.remove({"svc", std::nullopt}), KXKeychainStatus::Success)
        << "removes every item of the service";
    EXPECT_FALSE(keychain.copy({"svc", "alice"}).has_value());
    EXPECT_FALSE(keychain.copy({"svc", "bob"}).has_value());
    EXPECT_EQ(keychain.copy({"other", std::nullopt}), Bytes({5}));
    EXPECT_EQ(keychain.remove({"svc", std::nullopt}), KXKeychainStatus::ItemNotFound);

    // Empty data is data too.
    EXPECT_EQ(keychain.add({"empty", "x"}, {}), KXKeychainStatus::Success);
    EXPECT_EQ(keychain.copy({"empty", "x"}, &status), Bytes{});
    EXPECT_EQ(status, KXKeychainStatus::Success);
}

TEST(KXFileKeychain, FilesAreOwnerOnlyFromTheStartWhateverTheUmask) {
    const mode_t previous = umask(0);  // the most permissive umask
    {
        KXFileKeychain keychain(keychainFile());
        ASSERT_EQ(keychain.add({"svc", "a"}, {1}), KXKeychainStatus::Success);
    }
    umask(previous);
    EXPECT_EQ(modeOf(keychainFile()), 0600u);
    EXPECT_EQ(modeOf(keychainFile().parent_path()), 0700u);
    EXPECT_EQ(modeOf(keychainFile().parent_path().parent_path()), 0700u)
        << "missing parents are created private too";
    EXPECT_EQ(modeOf(keychainFile().string() + ".lock"), 0600u);

    // An update replaces the file with a new one: still 0600.
    KXFileKeychain keychain(keychainFile());
    ASSERT_EQ(keychain.update({"svc", "a"}, {2}), KXKeychainStatus::Success);
    EXPECT_EQ(modeOf(keychainFile()), 0600u);
}

TEST(KXFileKeychain, ItemsSurviveARestartAndAreSharedBetweenProcesses) {
    {
        KXFileKeychain keychain(keychainFile());
        ASSERT_EQ(keychain.add({"credentials", "client"}, {0xC0, 0xFF, 0xEE}),
                  KXKeychainStatus::Success);
    }
    // Another process sees the item and changes it; this process sees the change.
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        KXFileKeychain keychain(keychainFile());
        const bool ok =
            keychain.copy({"credentials", "client"}) == Bytes({0xC0, 0xFF, 0xEE}) &&
            keychain.update({"credentials", "client"}, {1}) == KXKeychainStatus::Success &&
            keychain.add({"credentials", "second"}, {2}) == KXKeychainStatus::Success;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

    KXFileKeychain keychain(keychainFile());
    EXPECT_EQ(keychain.copy({"credentials", "client"}), Bytes({1}));
    EXPECT_EQ(keychain.copy({"credentials", "second"}), Bytes({2}));
}

TEST(KXFileKeychain, ConcurrentWritersLoseNothing) {
    // Two processes, two threads each, all adding to one store.
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    auto addMany = [](const std::string& who) {
        KXFileKeychain keychain(keychainFile());
        std::vector<std::thread> threads;
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < 25; ++i) {
                    keychain.add({"svc", who + std::to_string(t) + "-" + std::to_string(i)},
                                 {static_cast<std::uint8_t>(i)});
                }
            });
        }
        for (auto& thread : threads) {
            thread.join();
        }
    };
    if (child == 0) {
        addMany("child");
        _exit(0);
    }
    addMany("parent");
    ASSERT_EQ(waitpid(child, nullptr, 0), child);

    KXFileKeychain keychain(keychainFile());
    for (const std::string who : {"child", "parent"}) {
        for (int t = 0; t < 2; ++t) {
            for (int i = 0; i < 25; ++i) {
                EXPECT_EQ(keychain.copy({"svc", who + std::to_string(t) + "-" + std::to_string(i)}),
                          Bytes({static_cast<std::uint8_t>(i)}))
                    << who << t << "-" << i;
            }
        }
    }
}

TEST(KXFileKeychain, ADamagedStoreIsMovedAsideAndStartsEmpty) {
    auto sink = KXCapturingSink::install();
    fs::create_directories(keychainFile().parent_path());
    std::ofstream(keychainFile(), std::ios::binary) << "bplist00 this is not a keychain";

    KXFileKeychain keychain(keychainFile());
    EXPECT_FALSE(keychain.copy({"svc", "a"}).has_value());
    EXPECT_EQ(keychain.add({"svc", "a"}, {1}), KXKeychainStatus::Success);
    EXPECT_EQ(keychain.copy({"svc", "a"}), Bytes({1}));
    int asides = 0;
    for (const auto& entry : fs::directory_iterator(keychainFile().parent_path())) {
        asides += entry.path().filename().string().rfind("keychain.plist.damaged-", 0) == 0;
    }
    EXPECT_EQ(asides, 1);
    EXPECT_EQ(sink->linesContaining("Keychain").size(), 1u);
}

TEST(KXFileKeychain, AnUnwritableStoreReportsIOAndKeepsItsItems) {
    KXFileKeychain keychain(keychainFile());
    ASSERT_EQ(keychain.add({"svc", "a"}, {1}), KXKeychainStatus::Success);
    // A file where the store's directory should be: nothing can be written (even by root).
    const fs::path directory = keychainFile().parent_path();
    const fs::path away = directory.string() + ".away";
    fs::rename(directory, away);
    std::ofstream(directory) << "in the way";
    EXPECT_EQ(keychain.add({"svc", "b"}, {2}), KXKeychainStatus::IO);
    EXPECT_EQ(keychain.update({"svc", "a"}, {3}), KXKeychainStatus::IO);
    EXPECT_EQ(keychain.remove({"svc", "a"}), KXKeychainStatus::IO);

    fs::remove(directory);
    fs::rename(away, directory);
    EXPECT_EQ(keychain.copy({"svc", "a"}), Bytes({1}));
    EXPECT_FALSE(keychain.copy({"svc", "b"}).has_value());
}
