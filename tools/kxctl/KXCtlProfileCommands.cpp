// profile add, enable, disable; subscribe and unsubscribe: the delivery profiles of the current
// guest and their list memberships.

#include "KXCtlCommands.h"

#include <KXClientFramework/KXConfig.h>
#include <KXClientFramework/KXGuestManager.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace kxctl {
namespace {

struct AddOptions {
    std::string channel;
    std::string guestId;
    std::optional<std::string> value;
};

struct MembershipOptions {
    std::string listId;
    std::optional<std::int64_t> channel;
    std::optional<std::string> profileId;
};

KXGuestManager::Failure printFailure(Run& run) {
    return [&run](const KXError& error) { run.printError(error); };
}

KXGuestManager::BoolSuccess printOk(Run& run) {
    return [&run](bool) { run.print({{"ok", true}}); };
}

void addProfile(Run& run, const AddOptions& options) {
    auto printId = [&run](const std::string& id) { run.print({{"profileId", id}}); };
    if (options.channel == "apns") {
        KXGuestManager::addAPNSDeliveryProfileForGuestWithId(options.guestId, printId,
                                                             printFailure(run));
    } else if (options.channel == "inbox") {
        // Without a value, the configured inbox domain.
        const auto inboxId =
            options.value ? options.value : KXConfig::defaultConfig().inboxDomainId();
        KXGuestManager::addInboxDeliveryProfileForGuestWithId(options.guestId, inboxId, printId,
                                                              printFailure(run));
    } else if (options.channel == "email") {
        KXGuestManager::addEmailDeliveryProfileForGuestWithId(options.guestId, options.value,
                                                              printId, printFailure(run));
    } else {
        KXGuestManager::addSMSDeliveryProfileForGuestWithId(options.guestId, options.value, printId,
                                                            printFailure(run));
    }
}

void addMembershipCommand(CLI::App& app, Command& chosen, bool subscribe) {
    auto options = std::make_shared<MembershipOptions>();
    auto* command = app.add_subcommand(
        subscribe ? "subscribe" : "unsubscribe",
        subscribe ? "subscribe a delivery profile of the current guest to a list"
                  : "remove a delivery profile of the current guest from a list");
    command->add_option("LIST", options->listId, "the list id")->required();
    auto* channel = command->add_option("--channel", options->channel,
                                        "the profile of this channel type (any integer)");
    auto* profile = command->add_option("--profile", options->profileId, "the profile id");
    channel->excludes(profile);
    command->parse_complete_callback([&chosen, options, subscribe] {
        chosen.validate = [options] {
            if (!options->channel && !options->profileId) {
                throw UsageError{"give --channel N or --profile ID"};
            }
        };
        chosen.start = [options, subscribe](Run& run) {
            if (options->channel) {
                const auto channel = static_cast<KXChannelType>(*options->channel);
                if (subscribe) {
                    KXGuestManager::subscribeToList(options->listId, channel, printOk(run),
                                                    printFailure(run));
                } else {
                    KXGuestManager::unsubscribeToList(options->listId, channel, printOk(run),
                                                      printFailure(run));
                }
            } else if (subscribe) {
                KXGuestManager::subscribeToList(options->listId, options->profileId, printOk(run),
                                                printFailure(run));
            } else {
                KXGuestManager::unsubscribeToList(options->listId, options->profileId, printOk(run),
                                                  printFailure(run));
            }
        };
    });
}

}  // namespace

void addProfileCommands(CLI::App& app, Command& chosen) {
    auto* profile = app.add_subcommand("profile", "delivery profiles");
    profile->require_subcommand(1);

    auto addOptions = std::make_shared<AddOptions>();
    auto* add = profile->add_subcommand(
        "add",
        "add a delivery profile to a guest: apns GUEST_ID, inbox GUEST_ID [INBOX_ID], "
        "email GUEST_ID ADDRESS, sms GUEST_ID MDN");
    add->add_option("CHANNEL", addOptions->channel, "apns, inbox, email or sms")
        ->required()
        ->check(CLI::IsMember({"apns", "inbox", "email", "sms"}));
    add->add_option("GUEST_ID", addOptions->guestId, "the guest's externalId")->required();
    add->add_option("VALUE", addOptions->value, "inbox id, e-mail address or mobile number");
    add->parse_complete_callback([&chosen, addOptions] {
        chosen.start = [addOptions](Run& run) { addProfile(run, *addOptions); };
    });

    for (const bool enable : {true, false}) {
        auto channel = std::make_shared<std::int64_t>(0);
        auto* command =
            profile->add_subcommand(enable ? "enable" : "disable",
                                    enable ? "switch the current guest's profile of a channel on"
                                           : "switch the current guest's profile of a channel off");
        command->add_option("CHANNEL", *channel, "channel type: 1 push, 2 SMS, 3 inbox, 4 e-mail")
            ->required();
        command->parse_complete_callback([&chosen, channel, enable] {
            chosen.start = [channel, enable](Run& run) {
                const auto type = static_cast<KXChannelType>(*channel);
                if (enable) {
                    KXGuestManager::enableDeliveryProfileForChannel(type, printOk(run),
                                                                    printFailure(run));
                } else {
                    KXGuestManager::disableDeliveryProfileForChannel(type, printOk(run),
                                                                     printFailure(run));
                }
            };
        });
    }

    addMembershipCommand(app, chosen, true);
    addMembershipCommand(app, chosen, false);
}

}  // namespace kxctl
