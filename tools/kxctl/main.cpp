// kxctl: drives the library from a shell. Opens the sealed configuration, authenticates with
// its client credentials, runs one command and prints JSON lines on standard output.
//
// Exit status: 0 everything succeeded, 1 a service, token or configuration failure, 2 a usage
// error, 3 the --timeout ran out.

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXLinuxPlatform.h>
#include <KXClientFramework/KXOAuth2Client.h>
#include <KXClientFramework/KXSessionManager.h>

#include <CLI/CLI.hpp>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr int kSuccess = 0;
constexpr int kFailure = 1;
constexpr int kUsage = 2;
constexpr int kTimedOut = 3;

struct Options {
    std::string configPath = "KXConfig.enc";
    std::string key;
    std::int64_t environment = 0;
    std::optional<std::string> businessUnit;
    std::vector<std::string> endpoints;
    double timeout = 30;
    bool verbose = false;

    std::string method;
    std::string path;
    std::optional<std::string> data;
    int repeat = 1;
};

/// A usage error found after parsing (exit status 2).
struct UsageError {
    std::string message;
};

/// A failure to report before anything was sent (exit status 1).
struct Failure {
    std::string message;
};

void printLine(const KXJSON& line) {
    std::cout << line.dump(-1, ' ', false, KXJSON::error_handler_t::replace) << '\n' << std::flush;
}

KXJSON errorLine(const KXError& error) {
    return {{"error", {{"domain", error.domain}, {"code", error.code}, {"userInfo", error.userInfo}}}};
}

KXServiceEndpoints parseEndpoints(const std::vector<std::string>& assignments) {
    KXServiceEndpoints endpoints;
    const std::map<std::string, std::string KXServiceEndpoints::*> fields = {
        {"production", &KXServiceEndpoints::production},
        {"test", &KXServiceEndpoints::test},
        {"staging", &KXServiceEndpoints::staging},
        {"local", &KXServiceEndpoints::localServer},
        {"development", &KXServiceEndpoints::development},
        {"production-token", &KXServiceEndpoints::productionToken},
        {"staging-token", &KXServiceEndpoints::stagingToken},
    };
    for (const std::string& assignment : assignments) {
        const std::size_t equals = assignment.find('=');
        const auto field = fields.find(assignment.substr(0, equals));
        if (equals == std::string::npos || field == fields.end() || equals + 1 == assignment.size()) {
            throw UsageError{"--endpoint takes NAME=URL with NAME one of production, test, staging, "
                             "local, development, production-token, staging-token: " + assignment};
        }
        endpoints.*(field->second) = assignment.substr(equals + 1);
    }
    return endpoints;
}

/// Opens the configuration with the key and makes it the library's configuration. The library's
/// own loader stops the process on a wrong key; here it is a clean failure.
void loadConfiguration(const Options& options) {
    std::ifstream file(options.configPath, std::ios::binary);
    if (!file) {
        throw Failure{"cannot read the configuration file " + options.configPath};
    }
    const std::vector<std::uint8_t> sealed((std::istreambuf_iterator<char>(file)),
                                           std::istreambuf_iterator<char>());
    const std::optional<KXJSON> configuration = KXConfig::openSealedConfiguration(sealed, options.key);
    if (!configuration || !configuration->is_object()) {
        throw Failure{"the configuration file " + options.configPath +
                      " does not open with this key"};
    }
    KXConfig::defaultConfig().applyConfiguration(*configuration);
}

std::optional<std::string> isoDate(const std::optional<KXBearerToken::Date>& date) {
    if (!date || *date == KXBearerToken::distantFuture()) {
        return std::nullopt;
    }
    const std::time_t seconds = std::chrono::system_clock::to_time_t(
        std::chrono::floor<std::chrono::seconds>(*date));
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(text);
}

KXJSON answerLine(const KXHTTPResponse& response) {
    KXJSON headers = KXJSON::object();
    for (const auto& [name, value] : response.headers) {
        headers[name] = value;
    }
    return {{"status", response.statusCode},
            {"headers", headers},
            {"body", KXHTTPSessionManager::JSONObjectWithData(response.body)}};
}

/// Runs the command once the library is set up; calls `finish(status)` when it is over.
class Run {
public:
    Run(const Options& options, std::function<void(int)> finish)
        : options_(options), finish_(std::move(finish)) {}

    void token() {
        authenticate([this] {
            const auto token = KXHTTPSessionManager::sharedManager().bearerToken();
            const std::optional<std::string> expiresAt = token ? isoDate(token->expirationDate())
                                                               : std::nullopt;
            printLine({{"token", token && token->token() ? KXJSON(*token->token()) : KXJSON()},
                       {"expiresAt", expiresAt ? KXJSON(*expiresAt) : KXJSON()}});
            finish_(kSuccess);
        });
    }

    void call() {
        authenticate([this] { next(); });
    }

private:
    void authenticate(std::function<void()> then) {
        const KXConfig& config = KXConfig::defaultConfig();
        const bool production = config.inProduction();
        KXClientFramework& settings = KXClientFramework::sharedManager();
        settings.setClientId(production ? config.prodClientId() : config.stageClientId());
        settings.setClientSecret(production ? config.prodClientSecret() : config.stageClientSecret());
        settings.setApplicationId(config.appId());
        KXOAuth2Client::client()
            .initWithClientId(settings.clientId(), settings.clientSecret())
            .authenticateWithSuccess(std::move(then), [this](const KXError& error) {
                printLine(errorLine(error));
                finish_(kFailure);
            });
    }

    void next() {
        if (done_ == options_.repeat) {
            finish_(failed_ ? kFailure : kSuccess);
            return;
        }
        ++done_;
        KXHTTPSessionManager& transport = KXHTTPSessionManager::sharedManager();
        using Verb = void (KXHTTPSessionManager::*)(const std::string&, const KXJSON&,
                                                    KXHTTPSessionManager::SuccessBlock,
                                                    KXHTTPSessionManager::FailureBlock);
        static const std::map<std::string, Verb> verbs = {
            {"GET", &KXHTTPSessionManager::GET},
            {"POST", &KXHTTPSessionManager::POST},
            {"PUT", &KXHTTPSessionManager::PUT},
            {"DELETE", &KXHTTPSessionManager::DELETE},
        };
        const KXJSON parameters = options_.data ? KXJSON::parse(*options_.data) : KXJSON();
        (transport.*verbs.at(options_.method))(
            KXSessionManager::kxBaseURI() + options_.path, parameters,
            [this](std::shared_ptr<const KXHTTPResponse> response, const KXJSON&) {
                printLine(answerLine(*response));
                next();
            },
            [this](std::shared_ptr<const KXHTTPResponse>, const KXError& error) {
                printLine(errorLine(error));
                failed_ = true;
                next();
            });
    }

    const Options& options_;
    std::function<void(int)> finish_;
    int done_ = 0;
    bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    Options options;
    CLI::App app{"kxctl: call the guest-messaging service through KXClientFramework"};
    app.require_subcommand(1);
    app.add_option("--config", options.configPath, "sealed configuration file")
        ->capture_default_str();
    app.add_option("--key", options.key, "the application key (default: $KX_APP_KEY)");
    app.add_option("--env", options.environment, "service environment")->capture_default_str();
    app.add_option("--business-unit", options.businessUnit, "business unit of the base path");
    app.add_option("--endpoint", options.endpoints,
                   "NAME=URL, NAME one of production, test, staging, local, development, "
                   "production-token, staging-token (repeatable)");
    app.add_option("--timeout", options.timeout, "give up after this many seconds (exit 3)")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    app.add_flag("-v", options.verbose, "library log at DEBUG on standard error");

    auto* token = app.add_subcommand("token", "authenticate and print the bearer token");
    auto* call = app.add_subcommand("call", "send METHOD PATH (appended to the base path)");
    call->add_option("METHOD", options.method, "GET, POST, PUT or DELETE")
        ->required()
        ->check(CLI::IsMember({"GET", "POST", "PUT", "DELETE"}));
    call->add_option("PATH", options.path, "path below the base path, e.g. /guests/42")->required();
    call->add_option("--data", options.data, "JSON parameters (the request body)");
    call->add_option("--repeat", options.repeat, "send the request N times, one after another")
        ->check(CLI::PositiveNumber);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        app.exit(error);
        return kUsage;
    }

    try {
        if (options.key.empty()) {
            const char* fromEnvironment = std::getenv("KX_APP_KEY");
            if (fromEnvironment == nullptr || *fromEnvironment == '\0') {
                throw UsageError{"no key: pass --key or set KX_APP_KEY"};
            }
            options.key = fromEnvironment;
        }
        if (options.data) {
            const KXJSON parsed = KXJSON::parse(*options.data, nullptr, false);
            if (parsed.is_discarded()) {
                throw UsageError{"--data is not JSON: " + *options.data};
            }
        }
        const KXServiceEndpoints endpoints = parseEndpoints(options.endpoints);

        KXClientFramework::setLogging(true);
        KXClientFramework::setLogLevel(options.verbose ? 4 : 1);
        auto platform = KXLinuxPlatform::installDefault("kxctl");
        KXAsioMainQueue* mainQueue = platform->asioMainQueue();

        loadConfiguration(options);
        KXClientFramework::setServiceEndpoints(endpoints);
        KXClientFramework::setEnvironment(options.environment);
        if (options.businessUnit) {
            KXClientFramework::sharedManager().setBusinessUnit(options.businessUnit);
        }

        std::optional<int> status;
        Run run(options, [&status](int result) { status = result; });
        mainQueue->post([&] {
            if (token->parsed()) {
                run.token();
            } else {
                run.call();
            }
        });
        const auto limit = std::chrono::milliseconds(static_cast<std::int64_t>(options.timeout * 1000));
        if (!mainQueue->runUntil([&] { return status.has_value(); }, limit)) {
            std::cerr << "kxctl: no answer within " << options.timeout << " s\n";
            std::cout << std::flush;
            std::_Exit(kTimedOut);  // requests may still be under way; do not wait for them
        }
        return *status;
    } catch (const UsageError& error) {
        std::cerr << "kxctl: " << error.message << '\n';
        return kUsage;
    } catch (const Failure& failure) {
        std::cerr << "kxctl: " << failure.message << '\n';
        return kFailure;
    }
}
