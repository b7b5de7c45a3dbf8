#include "KXProcess.h"
#include "KXSealedFiles.h"

#include <KXClientFramework/KXJSON.h>
#include <KXClientFramework/KXPropertyList.h>

#include <gtest/gtest.h>

using kxtest::ProcessResult;

namespace {

const std::string kKey = "tool-key";

ProcessResult kxconfig(const std::vector<std::string>& arguments, const std::string& input = "") {
    return kxtest::runProcess(kxtest::builtProgram("tools/kxconfig/kxconfig"), arguments, input);
}

std::string readText(const std::filesystem::path& path) {
    const auto bytes = kxtest::readBytes(path);
    return {bytes.begin(), bytes.end()};
}

// Decrypts with the openssl tool; empty on failure.
std::string opensslOpen(const std::filesystem::path& sealed, const std::string& password) {
    const auto out = sealed.string() + ".plain";
    const int status =
        kxtest::run("openssl enc -d -aes-256-cbc -md md5 -pass 'pass:" + password + "' -in '" +
                    sealed.string() + "' -out '" + out + "' 2>/dev/null");
    return status == 0 ? readText(out) : std::string();
}

class KXConfigTool : public testing::Test {
protected:
    std::filesystem::path directory = kxtest::scratchDirectory("kxconfig");
    std::filesystem::path sealedFile = directory / "KXConfig.enc";

    void sealJSON(const KXJSON& configuration) {
        kxtest::writeText(directory / "config.json", configuration.dump());
        const auto result = kxconfig({"seal", "--key", kKey, (directory / "config.json").string(),
                                      "-o", sealedFile.string()});
        ASSERT_EQ(result.exitCode, 0) << result.err;
    }
};

}  // namespace

TEST_F(KXConfigTool, SealWritesAnXMLPropertyListThatOpenSSLOpens) {
    sealJSON({{"appId", "a1"}, {"inProduction", true}, {"analyticsSessionInterval", 45}});
    const std::string plain = opensslOpen(sealedFile, kKey);
    EXPECT_NE(plain.find("<?xml"), std::string::npos) << plain;
    const auto parsed =
        KXPropertyList::parse(std::vector<std::uint8_t>(plain.begin(), plain.end()));
    ASSERT_TRUE(parsed);
    EXPECT_EQ((*parsed)["appId"], "a1");
    EXPECT_EQ((*parsed)["inProduction"], true);
    EXPECT_EQ(opensslOpen(sealedFile, "other-key"), "");
}

TEST_F(KXConfigTool, SealAcceptsXMLAndBinaryPropertyLists) {
    kxtest::writeText(directory / "in.plist",
                      kxtest::xmlPropertyList("<key>appId</key><string>from-xml</string>\n"));
    kxtest::writeBytes(directory / "in.bplist",
                       KXPropertyList::toBinary({{"appId", "from-binary"}}));
    for (const char* name : {"in.plist", "in.bplist"}) {
        const auto out = directory / (std::string(name) + ".enc");
        ASSERT_EQ(kxconfig({"seal", "--key", kKey, (directory / name).string(), "-o", out.string()})
                      .exitCode,
                  0);
        const auto opened = kxconfig({"open", "--key", kKey, out.string()});
        ASSERT_EQ(opened.exitCode, 0) << opened.err;
        EXPECT_EQ(KXJSON::parse(opened.out)["appId"],
                  std::string(name) == "in.plist" ? "from-xml" : "from-binary");
    }
}

TEST_F(KXConfigTool, SealRefusesInputThatIsNoConfiguration) {
    kxtest::writeText(directory / "list.json", "[1, 2]");
    const auto result = kxconfig(
        {"seal", "--key", kKey, (directory / "list.json").string(), "-o", sealedFile.string()});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(sealedFile));
    EXPECT_EQ(kxconfig({"seal", "--key", kKey, (directory / "absent.json").string()}).exitCode, 1);
}

TEST_F(KXConfigTool, OpenPrintsJSONOrXMLAndFailsCleanly) {
    sealJSON({{"appId", "a1"}, {"stageClientId", "s1"}});
    const auto json = kxconfig({"open", "--key", kKey, sealedFile.string()});
    ASSERT_EQ(json.exitCode, 0);
    EXPECT_EQ(KXJSON::parse(json.out), KXJSON({{"appId", "a1"}, {"stageClientId", "s1"}}));

    const auto xml = kxconfig({"open", "--key", kKey, "--xml", sealedFile.string()});
    ASSERT_EQ(xml.exitCode, 0);
    EXPECT_NE(xml.out.find("<string>s1</string>"), std::string::npos);

    const auto wrongKey = kxconfig({"open", "--key", "nope", sealedFile.string()});
    EXPECT_EQ(wrongKey.exitCode, 1);
    EXPECT_EQ(wrongKey.out, "");
    EXPECT_EQ(std::count(wrongKey.err.begin(), wrongKey.err.end(), '\n'), 1) << wrongKey.err;

    kxtest::writeText(directory / "garbage.enc", "definitely not sealed data at all");
    const auto garbage = kxconfig({"open", "--key", kKey, (directory / "garbage.enc").string()});
    EXPECT_EQ(garbage.exitCode, 1);
    EXPECT_EQ(garbage.out, "");
    EXPECT_NE(garbage.err.find("Unknown header"), std::string::npos) << garbage.err;
}

TEST_F(KXConfigTool, SaltedEncryptionInteroperatesWithOpenSSLBothWays) {
    const std::string plain = "the quick brown fox\n";
    const auto sealed = kxconfig({"encrypt", "--format", "salted", "--password", "pw"}, plain);
    ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
    EXPECT_EQ(sealed.out.rfind("Salted__", 0), 0u);
    kxtest::writeText(directory / "ours.enc", sealed.out);
    EXPECT_EQ(opensslOpen(directory / "ours.enc", "pw"), plain);

    kxtest::writeText(directory / "plain.txt", plain);
    kxtest::sealWithOpenSSL(directory / "plain.txt", directory / "theirs.enc", "pw");
    const auto opened = kxconfig({"decrypt", "--format", "salted", "--password", "pw", "-i",
                                  (directory / "theirs.enc").string()});
    ASSERT_EQ(opened.exitCode, 0) << opened.err;
    EXPECT_EQ(opened.out, plain);
}

TEST_F(KXConfigTool, SaltedWithKeyAndIVIsRawCBC) {
    const std::string key(64, 'a');
    const std::string iv(32, 'b');
    const std::string plain = "sixteen byte blk and more";
    const auto ours = kxconfig({"encrypt", "--format", "salted", "--key", key, "--iv", iv}, plain);
    ASSERT_EQ(ours.exitCode, 0) << ours.err;
    kxtest::writeText(directory / "plain.txt", plain);
    ASSERT_EQ(kxtest::run("openssl enc -aes-256-cbc -nosalt -K " + key + " -iv " + iv + " -in '" +
                          (directory / "plain.txt").string() + "' -out '" +
                          (directory / "raw.enc").string() + "'"),
              0);
    EXPECT_EQ(ours.out, readText(directory / "raw.enc"));
    const auto back =
        kxconfig({"decrypt", "--format", "salted", "--key", key, "--iv", iv}, ours.out);
    EXPECT_EQ(back.out, plain);
}

TEST_F(KXConfigTool, VersionThreeContainerDetectsTampering) {
    const std::vector<std::string> keys = {"--key", std::string(64, '1'), "--hmac-key",
                                           std::string(64, '2')};
    auto arguments = [&](const char* command) {
        std::vector<std::string> all = {command, "--format", "v3"};
        all.insert(all.end(), keys.begin(), keys.end());
        return all;
    };
    const auto sealed = kxconfig(arguments("encrypt"), "container payload");
    ASSERT_EQ(sealed.exitCode, 0) << sealed.err;
    EXPECT_EQ(static_cast<unsigned char>(sealed.out[0]), 3);
    EXPECT_EQ(kxconfig(arguments("decrypt"), sealed.out).out, "container payload");

    std::string tampered = sealed.out;
    tampered[20] = static_cast<char>(tampered[20] ^ 0x01);
    const auto result = kxconfig(arguments("decrypt"), tampered);
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("HMAC Mismatch"), std::string::npos) << result.err;

    const auto password = kxconfig({"encrypt", "--format", "v3", "--password", "pw"}, "");
    EXPECT_EQ(password.out.size(), 82u);
}

TEST_F(KXConfigTool, UsageErrorsExitWithTwoAndHelpWithZero) {
    EXPECT_EQ(kxconfig({}).exitCode, 2);
    EXPECT_EQ(kxconfig({"frobnicate"}).exitCode, 2);
    EXPECT_EQ(kxconfig({"open", "file.enc"}).exitCode, 2) << "missing --key";
    EXPECT_EQ(kxconfig({"encrypt", "--format", "salted"}).exitCode, 2);
    EXPECT_EQ(kxconfig({"encrypt", "--format", "rot13", "--password", "x"}).exitCode, 2);
    EXPECT_EQ(kxconfig({"encrypt", "--format", "v3", "--password", "x", "--key", "00"}).exitCode,
              2);
    for (const char* command : {"seal", "open", "check", "encrypt", "decrypt"}) {
        const auto help = kxconfig({command, "--help"});
        EXPECT_EQ(help.exitCode, 0) << command;
        EXPECT_NE(help.out.find("--key"), std::string::npos) << command;
    }
    EXPECT_EQ(kxconfig({"--help"}).exitCode, 0);
}

TEST_F(KXConfigTool, BadHexIsAFailureNotACrash) {
    const auto result =
        kxconfig({"encrypt", "--format", "salted", "--key", "zz", "--iv", "00"}, "x");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("--key"), std::string::npos);
}
