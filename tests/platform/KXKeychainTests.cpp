#include <KXClientFramework/KXFileKeychain.h>

#include "KXCapturingSink.h"
#include "KXPlatformTestSupport.h"
#include "KXSealedFiles.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

namespace fs = std::filesystem;
using namespace kxplatformtest;

namespace {

using Bytes = std::vector<std::uint8_t>;

// Two missing levels under the test's own directory, which the keychain makes.
fs::path keychainFile() {
    return kxtest::scratchDirectory("keychain") / "store" / "app" / "keychain.plist";
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

    EXPECT_EQ(keychain.copy({"svc", "alice"}), Bytes({1, 2, 3}));
    EXPECT_EQ(keychain.copy({"svc", std::nullopt}), Bytes({1, 2, 3}))
        << "without an account the first item of the service matches";
    EXPECT_FALSE(keychain.copy({"svc", "carol"}).has_value());

    EXPECT_EQ(keychain.update({"svc", "carol"}, {7}), KXKeychainStatus::ItemNotFound);
    EXPECT_EQ(keychain.update({"svc", "bob"}, {8, 8}), KXKeychainStatus::Success);
    EXPECT_EQ(keychain.copy({"svc", "bob"}), Bytes({8, 8}));
    EXPECT_EQ(keychain.copy({"svc", "alice"}), Bytes({1, 2, 3})) << "other items are untouched";

    EXPECT_EQ(keychain.remove({"svc", "carol"}), KXKeychainStatus::ItemNotFound);
    EXPECT_EQ(keychain.remove({"svc", std::nullopt}), KXKeychainStatus::Success)
        << "removes every item of the service";
    EXPECT_FALSE(keychain.copy({"svc", "alice"}).has_value());
    EXPECT_FALSE(keychain.copy({"svc", "bob"}).has_value());
    EXPECT_EQ(keychain.copy({"other", std::nullopt}), Bytes({5}));
    EXPECT_EQ(keychain.remove({"svc", std::nullopt}), KXKeychainStatus::ItemNotFound);

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

TEST(KXFileKeychain, ItemsAreSharedBetweenProcessesAndConcurrentWritersLoseNothing) {
    {
        KXFileKeychain keychain(keychainFile());
        ASSERT_EQ(keychain.add({"credentials", "client"}, {0xC0, 0xFF, 0xEE}),
                  KXKeychainStatus::Success);
    }
    // Two processes, two threads each, all adding; the child also changes the earlier item.
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
        return who == "parent" ||
               (keychain.copy({"credentials", "client"}) == Bytes({0xC0, 0xFF, 0xEE}) &&
                keychain.update({"credentials", "client"}, {1}) == KXKeychainStatus::Success);
    };
    const pid_t child = startChild([&] { return addMany("child"); });
    addMany("parent");
    ASSERT_TRUE(childSucceeded(child));

    KXFileKeychain keychain(keychainFile());
    EXPECT_EQ(keychain.copy({"credentials", "client"}), Bytes({1}));
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

TEST(KXFileKeychain, ADamagedStoreStartsEmptyAndAnUnwritableOneReportsIOAndKeepsItsItems) {
    auto sink = KXCapturingSink::install();
    writeFile(keychainFile(), "bplist00 this is not a keychain");
    KXFileKeychain keychain(keychainFile());
    EXPECT_FALSE(keychain.copy({"svc", "a"}).has_value());
    ASSERT_EQ(keychain.add({"svc", "a"}, {1}), KXKeychainStatus::Success);
    EXPECT_EQ(entriesStartingWith(keychainFile().parent_path(), "keychain.plist.damaged-").size(),
              1u);
    EXPECT_EQ(sink->linesContaining("Keychain").size(), 1u);

    // A file where the store's directory should be: nothing can be written (even by root).
    const fs::path directory = keychainFile().parent_path();
    const fs::path away = directory.string() + ".away";
    fs::rename(directory, away);
    writeFile(directory, "in the way");
    EXPECT_EQ(keychain.add({"svc", "b"}, {2}), KXKeychainStatus::IO);
    EXPECT_EQ(keychain.update({"svc", "a"}, {3}), KXKeychainStatus::IO);
    EXPECT_EQ(keychain.remove({"svc", "a"}), KXKeychainStatus::IO);

    fs::remove(directory);
    fs::rename(away, directory);
    EXPECT_EQ(keychain.copy({"svc", "a"}), Bytes({1}));
    EXPECT_FALSE(keychain.copy({"svc", "b"}).has_value());
}
