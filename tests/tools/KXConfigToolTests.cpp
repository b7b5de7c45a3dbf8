#include "KXToolTestFixture.h"

#include <KXClientFramework/KXPropertyList.h>

#include <algorithm>

using namespace kxtools;
namespace fs = std::filesystem;

namespace {

// Decrypts with the openssl tool; empty on failure.
std::string opensslOpen(const fs::path& sealed, const std::string& password) {
    const auto out = sealed.string() + ".plain";
    const int status =
        kxtest::run("openssl enc -d -aes-256-cbc -md md5 -pass 'pass:" + password + "' -in '" +
                    sealed.string() + "' -out '" + out + "' 2>/dev/null");
    return status == 0 ? readText(out) : std::string();
}

class KXConfigTool : public testing::Test {
protected:
    fs::path directory = kxtest::scratchDirectory("kxconfig");
    fs::path sealedFile = directory / "KXConfig.enc";
};

using R = Refusal;

const std::vector<Refusal> kRefusals = {
    R("NoCommand", {}, 2),
    R("AnUnknownCommand", {"frobnicate"}, 2),
    R("OpenWithoutKey", {"open", "DIR/KXConfig.enc"}, 2, "--key"),
    R("EncryptWithoutPasswordOrKey", {"encrypt", "--format", "salted"}, 2,
      "encrypt needs --password or --key"),
    R("AnUnknownFormat", {"encrypt", "--format", "rot13", "--password", "x"}, 2, "--format"),
    R("PasswordAndKeyTogether", {"encrypt", "--format", "v3", "--password", "x", "--key", "00"}, 2),
    R("AKeyThatIsNotHexadecimal", {"encrypt", "--format", "salted", "--key", "zz", "--iv", "00"}, 1,
      "--key", "x"),
    R("OpenWithAWrongKey", {"open", "--key", "wrong", "DIR/KXConfig.enc"}, 1,
      "wrong key or damaged file"),
    R("CheckWithAWrongKey", {"check", "--key", "wrong", "DIR/KXConfig.enc"}, 1,
      "wrong key or damaged file"),
    R("OpenAnEmptyFile", {"open", "--key", kKey, "DIR/empty.enc"}, 1, "empty.enc is empty"),
    R("OpenDataThatIsNotSealed", {"open", "--key", kKey, "DIR/garbage.enc"}, 1, "Unknown header"),
    R("OpenAnAbsentFile", {"open", "--key", kKey, "DIR/absent.enc"}, 1,
      "No such file or directory"),
};

class KXConfigRefusal : public KXConfigTool, public testing::WithParamInterface<Refusal> {};

}  // namespace

TEST_P(KXConfigRefusal, EndsWithItsStatusAndOneLineOfReason) {
    Refusal refusal = GetParam();
    kxtest::sealCredentialConfiguration(sealedFile, kKey);
    kxtest::writeText(directory / "empty.enc", "");
    kxtest::writeText(directory / "garbage.enc", "definitely not sealed data at all");
    placeDirectory(refusal.arguments, directory);
    const ProcessResult result = kxconfig(refusal.arguments, refusal.input);
    expectOutcome(result, refusal.exitCode, refusal.err);
    EXPECT_EQ(result.out, "");
    if (refusal.exitCode == 1) {
        EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    }
}

INSTANTIATE_TEST_SUITE_P(Arguments, KXConfigRefusal, testing::ValuesIn(kRefusals),
                         [](const auto& info) { return std::string(info.param.name); });

// Fractions and large integers too, from JSON, an XML and a binary property list.
TEST_F(KXConfigTool, SealWritesAnXMLPropertyListThatOpenPrintsUnchanged) {
    const KXJSON settings = {{"appId", "a1"},
                             {"inProduction", true},
                             {"ratio", 0.1},
                             {"big", 18446744073709551615ULL},
                             {"nested", {{"list", {1, -2, "three", "s1"}}}}};
    kxtest::writeText(directory / "in.json", settings.dump());
    kxtest::writeText(directory / "in.plist",
                      kxtest::xmlPropertyList("<key>appId</key><string>from-xml</string>\n"));
    kxtest::writeBytes(directory / "in.bplist",
                       KXPropertyList::toBinary({{"appId", "from-binary"}}));
    const std::vector<std::pair<const char*, KXJSON>> inputs = {
        {"in.json", settings},
        {"in.plist", {{"appId", "from-xml"}}},
        {"in.bplist", {{"appId", "from-binary"}}}};
    for (const auto& [name, expected] : inputs) {
        SCOPED_TRACE(name);
        const auto sealed = kxconfig(
            {"seal", "--key", kKey, (directory / name).string(), "-o", sealedFile.string()});
        ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
        const std::string plain = opensslOpen(sealedFile, kKey);
        EXPECT_EQ(plain.rfind("<?xml", 0), 0u) << plain;
        EXPECT_EQ(KXPropertyList::parse(plain), expected);

        const auto json = kxconfig({"open", "--key", kKey, sealedFile.string()});
        ASSERT_EQ(json.exitCode, 0) << json.err;
        EXPECT_EQ(KXJSON::parse(json.out), expected);
        const auto xml = kxconfig({"open", "--key", kKey, "--xml", sealedFile.string()});
        ASSERT_EQ(xml.exitCode, 0) << xml.err;
        EXPECT_EQ(xml.out, plain);
    }
}

TEST_F(KXConfigTool, SaltedWithAPasswordIsOpenSSLsFormatAndWithKeyAndIVRawCBC) {
    const std::string plain = "sixteen byte blk and more";
    const auto sealed = kxconfig({"encrypt", "--format", "salted", "--password", "pw"}, plain);
    ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
    kxtest::writeText(directory / "ours.enc", sealed.out);
    EXPECT_EQ(opensslOpen(directory / "ours.enc", "pw"), plain);

    const std::string key(64, 'a');
    const std::string iv(32, 'b');
    const auto raw = kxconfig({"encrypt", "--format", "salted", "--key", key, "--iv", iv}, plain);
    ASSERT_EQ(raw.exitCode, 0) << raw.err;
    kxtest::writeText(directory / "plain.txt", plain);
    ASSERT_EQ(kxtest::run("openssl enc -aes-256-cbc -nosalt -K " + key + " -iv " + iv + " -in '" +
                          (directory / "plain.txt").string() + "' -out '" +
                          (directory / "raw.enc").string() + "'"),
              0);
    EXPECT_EQ(raw.out, readText(directory / "raw.enc"));
    EXPECT_EQ(kxconfig({"decrypt", "--format", "salted", "--key", key, "--iv", iv}, raw.out).out,
              plain);
}

TEST_F(KXConfigTool, VersionThreeContainerDetectsTampering) {
    auto arguments = [](const char* command) {
        return std::vector<std::string>{
            command,      "--format",          "v3", "--key", std::string(64, '1'),
            "--hmac-key", std::string(64, '2')};
    };
    const auto sealed = kxconfig(arguments("encrypt"), "container payload");
    ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
    EXPECT_EQ(static_cast<unsigned char>(sealed.out[0]), 3);
    EXPECT_EQ(kxconfig(arguments("decrypt"), sealed.out).out, "container payload");

    std::string tampered = sealed.out;
    tampered[20] = static_cast<char>(tampered[20] ^ 0x01);
    const ProcessResult refused = kxconfig(arguments("decrypt"), tampered);
    expectOutcome(refused, 1, "HMAC Mismatch");
    EXPECT_EQ(refused.out, "");
}

TEST_F(KXConfigTool, EveryCommandAnswersHelp) {
    for (const char* command : {"seal", "open", "check", "encrypt", "decrypt"}) {
        const auto help = kxconfig({command, "--help"});
        EXPECT_EQ(help.exitCode, 0) << command;
        EXPECT_NE(help.out.find("--key"), std::string::npos) << command;
    }
    EXPECT_EQ(kxconfig({"--help"}).exitCode, 0);
}
