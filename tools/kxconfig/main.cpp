// kxconfig: seals, opens and checks configuration files, and runs sealed data through the
// library's cryptors.
//
// Exit status: 0 success, 1 failure (one line on standard error; a missing file is one), 2 usage
// error. `check` also exits with 1 when the library would not read a setting as written.

#include "KXConfigCommands.h"
#include "KXToolMain.h"

#include <CLI/CLI.hpp>

#include <iostream>

namespace {

using kxtool::kFailure;
using kxtool::kUsage;

struct CryptArguments {
    std::string format;
    std::string password;
    std::string key;
    std::string hmacKey;
    std::string iv;
    std::string input;
    std::string output;
};

CLI::App* addCryptCommand(CLI::App& app, const char* name, const char* description,
                          CryptArguments& arguments) {
    auto* command = app.add_subcommand(name, description);
    command->add_option("--format", arguments.format, "salted or v3")
        ->required()
        ->check(CLI::IsMember({"salted", "v3"}));
    auto* password =
        command->add_option("--password", arguments.password, "derive the keys from this password");
    auto* key = command->add_option("--key", arguments.key, "encryption key, hexadecimal");
    command->add_option("--hmac-key", arguments.hmacKey, "HMAC key, hexadecimal (v3)")->needs(key);
    command->add_option("--iv", arguments.iv, "IV, hexadecimal")->needs(key);
    password->excludes(key);
    key->excludes(password);
    command->add_option("-i,--input", arguments.input, "input file (default: standard input)");
    command->add_option("-o,--output", arguments.output, "output file (default: standard output)");
    return command;
}

kxconfig::CryptOptions cryptOptions(const CryptArguments& arguments) {
    kxconfig::CryptOptions options;
    options.format =
        arguments.format == "v3" ? kxconfig::Format::Version3 : kxconfig::Format::Salted;
    if (!arguments.password.empty()) {
        options.keys.password = arguments.password;
    } else {
        options.keys.key = kxconfig::parseHex(arguments.key, "--key");
        options.keys.hmacKey = kxconfig::parseHex(arguments.hmacKey, "--hmac-key");
        options.keys.iv = kxconfig::parseHex(arguments.iv, "--iv");
    }
    options.input = arguments.input;
    options.output = arguments.output;
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app{"Seal, open and check KXClientFramework configuration files", "kxconfig"};
    app.require_subcommand(1);

    kxconfig::SealOptions sealOptions;
    auto* seal = app.add_subcommand("seal", "Seal a property list or JSON object as KXConfig.enc");
    seal->add_option("--key", sealOptions.key, "the application key")->required();
    seal->add_option("INPUT", sealOptions.input, "property list (XML or binary) or JSON object")
        ->required();
    seal->add_option("-o,--output", sealOptions.output, "output file")->capture_default_str();

    kxconfig::OpenOptions openOptions;
    auto* open = app.add_subcommand("open", "Print a sealed configuration as JSON or XML");
    open->add_option("--key", openOptions.key, "the application key")->required();
    open->add_option("INPUT", openOptions.input, "sealed configuration file")->required();
    open->add_flag("--xml", openOptions.xml, "print the XML property list instead of JSON");

    kxconfig::OpenOptions checkOptions;
    auto* check = app.add_subcommand(
        "check", "Print the settings the library holds after loading a configuration file");
    check->add_option("--key", checkOptions.key, "the application key")->required();
    check->add_option("INPUT", checkOptions.input, "sealed configuration file")->required();

    CryptArguments encryptArguments;
    CryptArguments decryptArguments;
    auto* encrypt = addCryptCommand(app, "encrypt", "Seal data", encryptArguments);
    auto* decrypt = addCryptCommand(app, "decrypt", "Open sealed data", decryptArguments);

    if (const auto status = kxtool::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    return kxtool::runReportingFailures("kxconfig", [&] {
        for (auto* command : {encrypt, decrypt}) {
            const auto& arguments = command == encrypt ? encryptArguments : decryptArguments;
            if (command->parsed() && arguments.password.empty() && arguments.key.empty()) {
                std::cerr << "kxconfig: " << command->get_name() << " needs --password or --key\n";
                return kUsage;
            }
        }
        if (seal->parsed()) {
            return kxconfig::seal(sealOptions);
        }
        if (open->parsed()) {
            return kxconfig::open(openOptions);
        }
        if (check->parsed()) {
            return kxconfig::check(checkOptions);
        }
        if (encrypt->parsed()) {
            return kxconfig::encrypt(cryptOptions(encryptArguments));
        }
        return kxconfig::decrypt(cryptOptions(decryptArguments));
    });
}
