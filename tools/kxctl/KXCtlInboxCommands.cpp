// inbox summary, messages, message, read, unread, delete and badge: the current guest's inbox
// through the shared KXInbox, one JSON line per answer.

#include "KXCtlCommands.h"
#include "KXCtlRecords.h"

#include <KXClientFramework/KXApplication.h>
#include <KXClientFramework/KXBadgeManager.h>
#include <KXClientFramework/KXInbox.h>
#include <KXClientFramework/KXInboxManager.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kxctl {
namespace {

struct InboxOptions {
    std::optional<std::string> domain;
    std::int64_t limit = 0;
    std::vector<std::int64_t> pages;
    std::string messageId;
    std::vector<std::string> messageIds;
};

KXJSON messagesLine(const std::optional<KXInboxMessages>& messages,
                    const std::optional<bool>& hasMoreRecords) {
    KXJSON lines = KXJSON::array();
    for (const auto& message : messages.value_or(KXInboxMessages())) {
        lines.push_back(messageRecord(*message, false));
    }
    const KXInbox& inbox = KXInbox::shared();
    return {{"messages", lines},
            {"hasMoreRecords", hasMoreRecords ? KXJSON(*hasMoreRecords) : KXJSON()},
            {"messageCount", inbox.messageCount()},
            {"unreadCount", inbox.unreadCount()}};
}

/// Fetches the pages from `index` on, one after another, each from the previous answer.
void fetchPages(Run& run, std::shared_ptr<const InboxOptions> options, std::size_t index) {
    if (index == options->pages.size()) {
        return;
    }
    KXInbox::shared().fetchWithPageNumber(
        options->pages[index], options->limit, options->domain,
        [&run, options, index](const std::optional<KXInboxMessages>& page, bool hasMoreRecords) {
            run.print(messagesLine(page, hasMoreRecords));
            fetchPages(run, options, index + 1);
        },
        [&run, options, index](const KXError& error) {
            run.printError(error);
            fetchPages(run, options, index + 1);
        });
}

std::shared_ptr<KXInboxMessage> messageWithId(const std::string& messageId) {
    auto message = std::make_shared<KXInboxMessage>();
    message->setMessageId(messageId);
    return message;
}

KXInboxManager::FailureBlock printFailure(Run& run) {
    return [&run](const KXError& error) { run.printError(error); };
}

}  // namespace

void addInboxCommands(CLI::App& app, Command& chosen) {
    auto* inbox = app.add_subcommand("inbox", "the current guest's inbox");
    inbox->require_subcommand(1);
    auto options = std::make_shared<InboxOptions>();
    const auto addDomain = [&options](CLI::App* command) {
        command->add_option("--domain", options->domain,
                            "inbox domain id (default: the configured one)");
    };

    auto* summary = inbox->add_subcommand("summary", "the inbox domain's summary");
    addDomain(summary);
    summary->parse_complete_callback([&chosen, options] {
        chosen.start = [options](Run& run) {
            KXInbox::shared().fetchInboxSummaryWithId(
                options->domain,
                [&run](const std::shared_ptr<KXInboxSummary>& summary) {
                    run.print({{"summary", summary ? summaryRecord(*summary) : KXJSON()}});
                },
                printFailure(run));
        };
    });

    auto* messages = inbox->add_subcommand(
        "messages", "every message, or with --page the pages given, in that order");
    addDomain(messages);
    messages->add_option("--limit", options->limit, "messages a page (0: the library's default)");
    messages->add_option("--page", options->pages, "a page number (repeatable)")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->expected(1);
    messages->parse_complete_callback([&chosen, options] {
        chosen.start = [options](Run& run) {
            if (!options->pages.empty()) {
                fetchPages(run, options, 0);
                return;
            }
            KXInbox::shared().fetchMessagesWithId(
                options->domain,
                [&run](const std::optional<KXInboxMessages>& all) {
                    run.print(messagesLine(all, std::nullopt));
                },
                printFailure(run));
        };
    });

    auto* message = inbox->add_subcommand("message", "one message with its content");
    message->add_option("ID", options->messageId, "the message id")->required();
    addDomain(message);
    message->parse_complete_callback([&chosen, options] {
        chosen.start = [options](Run& run) {
            KXInbox::shared().fetchMessageDetails(
                messageWithId(options->messageId), options->domain,
                [&run](const std::shared_ptr<KXInboxMessage>& filled) {
                    run.print({{"message", filled ? messageRecord(*filled, true) : KXJSON()}});
                },
                printFailure(run));
        };
    });

    for (const bool asRead : {true, false}) {
        auto* mark = inbox->add_subcommand(asRead ? "read" : "unread",
                                           asRead ? "mark a message read" : "mark it unread");
        mark->add_option("ID", options->messageId, "the message id")->required();
        addDomain(mark);
        mark->parse_complete_callback([&chosen, options, asRead] {
            chosen.start = [options, asRead](Run& run) {
                KXInboxManager::markMessage(
                    *messageWithId(options->messageId), options->domain, asRead,
                    [&run] {
                        run.print({{"ok", true}});
                    },
                    printFailure(run));
            };
        });
    }

    auto* remove = inbox->add_subcommand("delete", "delete messages, side by side");
    remove->add_option("ID", options->messageIds, "message ids")->required();
    addDomain(remove);
    remove->parse_complete_callback([&chosen, options] {
        chosen.start = [options](Run& run) {
            KXInboxMessages messages;
            for (const std::string& id : options->messageIds) {
                messages.push_back(messageWithId(id));
            }
            KXInbox::shared().deleteMessageDetailsArray(
                messages, options->domain,
                [&run] {
                    run.print({{"deleted", true}});
                },
                printFailure(run));
        };
    });

    auto* badge = inbox->add_subcommand(
        "badge", "count the unread messages into the application badge and print it");
    badge->parse_complete_callback([&chosen] {
        chosen.start = [](Run& run) {
            KXBadgeManager::fetchCurrentInboxUnreadCount();
            run.whenIdle([&run] {
                run.print({{"badge", run.application().applicationIconBadgeNumber()}});
            });
        };
    });
}

}  // namespace kxctl
