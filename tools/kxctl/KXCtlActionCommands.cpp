// action and defaults: a tapped notification action, and what the library keeps in the user
// defaults.

#include "KXCtlArguments.h"
#include "KXCtlCommands.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXClientFramework.h>
#include <KXClientFramework/KXDevice.h>
#include <KXClientFramework/KXFileUserDefaults.h>
#include <KXClientFramework/KXPlatform.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kxctl {
namespace {

/// How the user-defaults keys of the automatic guest's id end ("<client id>-GUEST-ID").
constexpr std::string_view kGuestIdSuffix = "-GUEST-ID";

}  // namespace

void addActionCommands(CLI::App& app, Command& chosen) {
    auto identifier = std::make_shared<std::string>();
    auto userInfoText = std::make_shared<std::optional<std::string>>();
    auto* action = app.add_subcommand(
        "action", "hand a tapped notification action to the application's delegate");
    action->add_option("IDENTIFIER", *identifier, "e.g. ACCEPT_IDENTIFIER")->required();
    action->add_option("--user-info", *userInfoText, "the notification's user info as JSON");
    action->parse_complete_callback([&chosen, identifier, userInfoText] {
        auto userInfo = std::make_shared<KXJSON>();
        chosen.validate = [userInfoText, userInfo] {
            if (*userInfoText) {
                *userInfo = parseJSONArgument("--user-info", **userInfoText);
            }
        };
        chosen.start = [identifier, userInfo](Run& run) {
            run.application().deliverAction(*identifier, *userInfo, [&run] {
                run.print({{"completed", true}});
            });
        };
    });

    auto* defaults = app.add_subcommand(
        "defaults", "print the library's user-defaults entries (guest id, push tokens)");
    defaults->parse_complete_callback([&chosen] {
        chosen.start = [](Run& run) {
            KXUserDefaults& store = KXPlatform::current().userDefaults();
            KXJSON entries = KXJSON::object();
            // The current environment's guest id and the tokens are printed even when absent
            // (as null); the guest ids other environments' client ids keep are added.
            for (const std::string& key : {KXClientFramework::autoGuestStorageKey(),
                                           std::string(kKXApplicationDeviceTokenKey),
                                           std::string(kKXApplicationDeviceTokenListKey)}) {
                entries[key] = store.objectForKey(key);
            }
            if (const auto* file = dynamic_cast<const KXFileUserDefaults*>(&store)) {
                const KXJSON stored = file->dictionaryRepresentation();
                for (const auto& [key, value] : stored.items()) {
                    if (key.ends_with(kGuestIdSuffix)) {
                        entries[key] = value;
                    }
                }
            }
            run.print(entries);
        };
    });
}

}  // namespace kxctl
