// guest auto, register, fetch, save, delete, logout: the guest of this installation.

#include "KXCtlArguments.h"
#include "KXCtlCommands.h"
#include "KXCtlGuestJSON.h"

#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXGuest.h>
#include <KXClientFramework/KXGuestManager.h>
#include <KXClientFramework/KXGuestParser.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kxctl {
namespace {

struct RegisterOptions {
    std::optional<std::string> id;
    std::optional<std::string> qrid;
    std::vector<std::string> parameters;  // KEY=JSON
    std::optional<std::string> buProperties;
    std::optional<std::string> language;
    std::optional<std::string> creativeLabel;
    std::optional<std::string> tags;
};

KXGuestManager::GuestSuccess printGuest(Run& run) {
    return [&run](const std::shared_ptr<KXGuest>& guest) { run.print(guestLine(guest)); };
}

KXGuestManager::Failure printFailure(Run& run) {
    return [&run](const KXError& error) { run.printError(error); };
}

/// The operation `options` choose, checked and ready to start.
std::function<void(Run&)> registration(const RegisterOptions& options) {
    const int fullParts = (options.buProperties ? 1 : 0) + (options.language ? 1 : 0) +
                          (options.creativeLabel ? 1 : 0) + (options.tags ? 1 : 0);
    if (fullParts != 0 && fullParts != 4) {
        throw UsageError{
            "guest register takes --bu-properties, --language, --creative-label and --tags "
            "together or none of them"};
    }
    if (options.qrid && (options.id || fullParts || !options.parameters.empty())) {
        throw UsageError{"guest register --qrid takes no other option"};
    }
    if (fullParts == 4) {
        if (!options.id || !options.parameters.empty()) {
            throw UsageError{"the full guest register needs --id and takes no --param"};
        }
        const KXJSON buProperties = parseJSONArgument("--bu-properties", *options.buProperties);
        const KXJSON tags = parseJSONArgument("--tags", *options.tags);
        return [id = *options.id, buProperties, language = *options.language,
                label = *options.creativeLabel, tags](Run& run) {
            KXGuestManager::registerGuestWithId(id, buProperties, language, label, tags,
                                                printGuest(run), printFailure(run));
        };
    }
    if (options.qrid) {
        return [qrid = *options.qrid](Run& run) {
            KXGuestManager::registerGuestWithQRID(qrid, printGuest(run), printFailure(run));
        };
    }
    if (options.id) {
        KXJSON parameters = KXJSON::object();
        for (const std::string& assignment : options.parameters) {
            const std::size_t equals = assignment.find('=');
            if (equals == std::string::npos || equals == 0) {
                throw UsageError{"--param takes KEY=JSON: " + assignment};
            }
            parameters[assignment.substr(0, equals)] =
                parseJSONArgument("--param", assignment.substr(equals + 1));
        }
        return [id = *options.id, parameters](Run& run) {
            KXGuestManager::registerGuestWithId(id, parameters, printGuest(run), printFailure(run));
        };
    }
    if (!options.parameters.empty()) {
        throw UsageError{"--param needs --id"};
    }
    return [](Run& run) {
        KXGuestManager::registerGuestWithSuccess(printGuest(run), printFailure(run));
    };
}

}  // namespace

void addGuestCommands(CLI::App& app, Command& chosen) {
    auto* guest = app.add_subcommand("guest", "the guest of this installation");
    guest->require_subcommand(1);

    // The automatic guest is part of start-up: the application engages through it.
    auto* autoGuest = guest->add_subcommand(
        "auto", "start up with the automatic guest and print it ({\"guest\": null} when off)");
    autoGuest->parse_complete_callback([&chosen] {
        auto failed = std::make_shared<bool>(false);
        chosen.engage = [failed](const std::string& key) {
            KXClientFramework::sharedManager().engageWithAutoGuestUsingKey(
                key, [](const std::shared_ptr<KXGuest>& guest) { printLine(guestLine(guest)); },
                [failed](const KXError& error) {
                    printLine(errorLine(error));
                    *failed = true;
                });
        };
        chosen.start = [failed](Run& run) {
            run.whenIdle([failed, &run] {
                if (*failed) {
                    run.markFailed();
                }
            });
        };
    });

    auto registerOptions = std::make_shared<RegisterOptions>();
    auto* registerGuest = guest->add_subcommand(
        "register", "register a guest (service-chosen id, --id, --qrid, or the full form)");
    registerGuest->add_option("--id", registerOptions->id, "the guest's externalId");
    registerGuest->add_option("--param", registerOptions->parameters,
                              "KEY=JSON added to the body (repeatable; with --id)");
    registerGuest->add_option("--qrid", registerOptions->qrid, "an external account id");
    registerGuest->add_option("--bu-properties", registerOptions->buProperties, "JSON object");
    registerGuest->add_option("--language", registerOptions->language, "language preference");
    registerGuest->add_option("--creative-label", registerOptions->creativeLabel,
                              "business-unit creative label");
    registerGuest->add_option("--tags", registerOptions->tags, "JSON array");
    registerGuest->parse_complete_callback([&chosen, registerOptions] {
        auto operation = std::make_shared<std::function<void(Run&)>>();
        chosen.validate = [registerOptions, operation] {
            *operation = registration(*registerOptions);
        };
        chosen.start = [operation](Run& run) { (*operation)(run); };
    });

    auto fetchId = std::make_shared<std::string>();
    auto* fetch = guest->add_subcommand("fetch", "fetch a guest into the current guest");
    fetch->add_option("ID", *fetchId, "the guest's externalId")->required();
    fetch->parse_complete_callback([&chosen, fetchId] {
        chosen.start = [fetchId](Run& run) {
            KXGuestManager::fetchGuestWithId(*fetchId, printGuest(run), printFailure(run));
        };
    });

    auto saveData = std::make_shared<std::string>();
    auto* save = guest->add_subcommand(
        "save", "parse JSON into the current guest (as the service's answer) and save it");
    save->add_option("--data", *saveData, "the guest as JSON")->required();
    save->parse_complete_callback([&chosen, saveData] {
        auto data = std::make_shared<KXJSON>();
        chosen.validate = [saveData, data] { *data = parseJSONArgument("--data", *saveData); };
        chosen.start = [data](Run& run) {
            KXGuestParser::parse(*data);
            KXGuestManager::saveGuest(
                *KXGuest::currentGuest(),
                [&run](bool) {
                    run.print({{"saved", true}});
                },
                printFailure(run));
        };
    });

    auto deleteId = std::make_shared<std::string>();
    auto* remove = guest->add_subcommand("delete", "delete a guest at the service");
    remove->add_option("ID", *deleteId, "the guest's externalId")->required();
    remove->parse_complete_callback([&chosen, deleteId] {
        chosen.start = [deleteId](Run& run) {
            KXGuestManager::deleteGuest(
                *deleteId,
                [&run](bool) {
                    run.print({{"deleted", true}});
                },
                printFailure(run));
        };
    });

    auto* logout = guest->add_subcommand(
        "logout", "log the current guest out and print it once the library is idle");
    logout->parse_complete_callback([&chosen] {
        chosen.start = [](Run& run) {
            KXGuest::currentGuest()->logout();
            run.whenIdle([&run] { run.print(guestLine(KXGuest::currentGuest())); });
        };
    });
}

}  // namespace kxctl

namespace kxctl {

Command onGuest(const std::string& guestId, Command command) {
    auto start = std::move(command.start);
    command.start = [guestId, start](Run& run) {
        KXGuestManager::fetchGuestWithId(
            guestId,
            [start, &run](const std::shared_ptr<KXGuest>&) {
                if (start) {
                    start(run);
                }
            },
            printFailure(run));
    };
    return command;
}

}  // namespace kxctl
