// engage, token, call and device-token: where the library is connected, its bearer token, raw
// REST calls through its transport, and handing it a push token.

#include "KXCtlArguments.h"
#include "KXCtlCommands.h"
#include "KXCtlHints.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXHTTPSessionManager.h>
#include <KXClientFramework/KXPlatform.h>
#include <KXClientFramework/KXSessionManager.h>

#include <chrono>
#include <ctime>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kxctl {
namespace {

std::optional<std::string> isoDate(const std::optional<KXBearerToken::Date>& date) {
    if (!date || *date == KXBearerToken::distantFuture()) {
        return std::nullopt;
    }
    const std::time_t seconds =
        std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(*date));
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

/// Token bytes from hexadecimal text (two digits a byte, either case); absent when the text is
/// not that.
std::optional<std::vector<std::uint8_t>> bytesFromHex(const std::string& text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    auto digit = [](char c) -> int {
        if (c >= '0' && c <= '9') {
            return c - '0';
        }
        if (c >= 'a' && c <= 'f') {
            return c - 'a' + 10;
        }
        if (c >= 'A' && c <= 'F') {
            return c - 'A' + 10;
        }
        return -1;
    };
    std::vector<std::uint8_t> bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = digit(text[i]);
        const int low = digit(text[i + 1]);
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    }
    return bytes;
}

struct CallOptions {
    std::string method;
    std::string path;
    std::optional<std::string> data;
    int repeat = 1;
};

/// Sends the call `left` more times, one after another, each from the previous one's callback.
void sendCall(Run& run, const CallOptions& call, const KXJSON& parameters, int left) {
    if (left == 0) {
        return;
    }
    using Verb = void (KXHTTPSessionManager::*)(const std::string&, const KXJSON&,
                                                KXHTTPSessionManager::SuccessBlock,
                                                KXHTTPSessionManager::FailureBlock);
    static const std::map<std::string, Verb> verbs = {
        {"GET", &KXHTTPSessionManager::GET},
        {"POST", &KXHTTPSessionManager::POST},
        {"PUT", &KXHTTPSessionManager::PUT},
        {"DELETE", &KXHTTPSessionManager::DELETE},
    };
    KXHTTPSessionManager& transport = KXHTTPSessionManager::sharedManager();
    (transport.*verbs.at(call.method))(
        KXSessionManager::kxBaseURI() + callPath(call.path), parameters,
        [&run, &call, parameters, left](std::shared_ptr<const KXHTTPResponse> response,
                                        const KXJSON&) {
            run.print(answerLine(*response));
            sendCall(run, call, parameters, left - 1);
        },
        [&run, &call, parameters, left](std::shared_ptr<const KXHTTPResponse>,
                                        const KXError& error) {
            run.printError(error);
            sendCall(run, call, parameters, left - 1);
        });
}

}  // namespace

void addServiceCommands(CLI::App& app, Command& chosen) {
    auto* engage = app.add_subcommand(
        "engage", "start the library as an application does and print where it is connected");
    engage->parse_complete_callback([&chosen] {
        chosen.start = [](Run& run) {
            KXClientFramework& manager = KXClientFramework::sharedManager();
            run.print({{"ready", true},
                       {"environment", manager.environment()},
                       {"baseURL", KXHTTPSessionManager::sharedManager().baseURL()},
                       {"basePath", KXSessionManager::kxBaseURI()},
                       {"backgroundNotificationEnabled", manager.backgroundNotificationEnabled()}});
        };
    });

    auto* token = app.add_subcommand("token", "authenticate and print the bearer token");
    token->parse_complete_callback([&chosen] {
        chosen.start = [](Run& run) {
            const auto bearer = KXHTTPSessionManager::sharedManager().bearerToken();
            const std::optional<std::string> expiresAt =
                bearer ? isoDate(bearer->expirationDate()) : std::nullopt;
            run.print({{"token", bearer && bearer->token() ? KXJSON(*bearer->token()) : KXJSON()},
                       {"expiresAt", expiresAt ? KXJSON(*expiresAt) : KXJSON()}});
        };
    });

    auto callOptions = std::make_shared<CallOptions>();
    auto* call = app.add_subcommand("call", "send METHOD PATH (appended to the base path)");
    call->add_option("METHOD", callOptions->method, "GET, POST, PUT or DELETE")
        ->required()
        ->check(CLI::IsMember({"GET", "POST", "PUT", "DELETE"}));
    call->add_option("PATH", callOptions->path, "path below the base path, e.g. /guests/42")
        ->required();
    call->add_option("--data", callOptions->data, "JSON parameters (the request body)");
    call->add_option("--repeat", callOptions->repeat, "send the request N times, one after another")
        ->check(CLI::PositiveNumber);
    call->parse_complete_callback([&chosen, callOptions] {
        auto parameters = std::make_shared<KXJSON>();
        chosen.validate = [callOptions, parameters] {
            if (callOptions->data) {
                *parameters = parseJSONArgument("--data", *callOptions->data);
            }
        };
        chosen.start = [callOptions, parameters](Run& run) {
            sendCall(run, *callOptions, *parameters, callOptions->repeat);
        };
    });

    auto tokenHex = std::make_shared<std::string>();
    auto* deviceToken = app.add_subcommand(
        "device-token", "hand a push token (hexadecimal) to the library and print the device data");
    deviceToken->add_option("HEX", *tokenHex, "the token bytes, e.g. 0a0b0c")->required();
    deviceToken->parse_complete_callback([&chosen, tokenHex] {
        auto bytes = std::make_shared<std::vector<std::uint8_t>>();
        chosen.validate = [tokenHex, bytes] {
            std::optional<std::vector<std::uint8_t>> parsed = bytesFromHex(*tokenHex);
            if (!parsed || parsed->empty()) {
                throw UsageError{"device-token takes hexadecimal bytes: " + *tokenHex};
            }
            *bytes = std::move(*parsed);
        };
        // Handed to the application's delegate (the library's dispatcher) as the platform does
        // after a registration.
        chosen.start = [bytes](Run& run) {
            run.application().deliverDeviceToken(*bytes);
            run.print(KXDevice::currentDevice().deviceData());
        };
    });
}

}  // namespace kxctl
