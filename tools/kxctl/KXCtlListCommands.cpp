// lists, list get and list create: the business unit's subscription lists through
// KXListManager, one JSON line per answer.

#include "KXCtlArguments.h"
#include "KXCtlCommands.h"
#include "KXCtlRecords.h"

#include <KXClientFramework/KXListManager.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace kxctl {
namespace {

struct ListOptions {
    std::int64_t page = 1;
    std::int64_t limit = 0;
    std::optional<std::string> tag;
    bool raw = false;
    std::string listId;
    std::optional<std::string> externalId;
    std::optional<std::string> name;
    std::optional<std::string> description;
    std::optional<std::string> tagsText;
    std::optional<std::string> buPropertiesText;
    KXJSON tags;
    KXJSON buProperties;
};

/// `text` parsed as JSON, or null when the option was not given.
KXJSON parseJSONOption(const std::optional<std::string>& text, const char* option) {
    return text ? parseJSONArgument(option, *text) : KXJSON();
}

KXListManager::FailureBlock printFailure(Run& run) {
    return [&run](const KXError& error) { run.printError(error); };
}

KXListManager::ListSuccessBlock printList(Run& run) {
    return [&run](const std::shared_ptr<KXList>& list) {
        run.print({{"list", list ? listRecord(*list) : KXJSON()}});
    };
}

}  // namespace

void addListCommands(CLI::App& app, Command& chosen) {
    auto options = std::make_shared<ListOptions>();

    auto* lists = app.add_subcommand("lists", "one page of the business unit's lists");
    lists->add_option("--page", options->page, "page number, from 1")->capture_default_str();
    lists->add_option("--limit", options->limit, "lists a page (0: the library's default)")
        ->capture_default_str();
    lists->add_option("--tag", options->tag, "only the lists with this tag");
    lists->add_flag("--raw", options->raw, "print the service's reply unparsed");
    lists->parse_complete_callback([&chosen, options] {
        chosen.validate = [options] {
            if (options->raw && options->tag) {
                throw UsageError{"--raw reads every list; it takes no --tag"};
            }
        };
        chosen.start = [options](Run& run) {
            const auto printLists = [&run](const std::optional<KXLists>& found, bool more) {
                KXJSON records = KXJSON::array();
                for (const auto& list : found.value_or(KXLists())) {
                    records.push_back(listRecord(*list));
                }
                run.print({{"lists", records}, {"hasMoreRecords", more}});
            };
            if (options->raw) {
                KXListManager::fetchListDataForPage(
                    options->page, options->limit,
                    [&run](const KXJSON& reply, bool more) {
                        run.print({{"data", reply}, {"hasMoreRecords", more}});
                    },
                    printFailure(run));
            } else if (options->tag) {
                KXListManager::fetchListsWithTag(options->tag, options->page, options->limit,
                                                 printLists, printFailure(run));
            } else {
                KXListManager::fetchListsForPage(options->page, options->limit, printLists,
                                                 printFailure(run));
            }
        };
    });

    auto* list = app.add_subcommand("list", "one subscription list");
    list->require_subcommand(1);

    auto* get = list->add_subcommand("get", "the list with this id");
    get->add_option("ID", options->listId, "the list id")->required();
    get->parse_complete_callback([&chosen, options] {
        chosen.start = [options](Run& run) {
            KXListManager::fetchListWithId(options->listId, printList(run), printFailure(run));
        };
    });

    auto* create = list->add_subcommand(
        "create", "create a list; bad input is reported and still sent, as the library does");
    create->add_option("--external-id", options->externalId, "the new list's id")->required();
    create->add_option("--name", options->name, "its name")->required();
    create->add_option("--description", options->description, "its description");
    create->add_option("--tags", options->tagsText, "its tags, a JSON array");
    create->add_option("--bu-properties", options->buPropertiesText,
                       "business-unit properties, a JSON object");
    create->parse_complete_callback([&chosen, options] {
        chosen.validate = [options] {
            options->tags = parseJSONOption(options->tagsText, "--tags");
            options->buProperties = parseJSONOption(options->buPropertiesText, "--bu-properties");
        };
        chosen.start = [options](Run& run) {
            KXListManager::createListWithExternalId(
                options->externalId, options->name, options->description, options->tags,
                options->buProperties, printList(run), printFailure(run));
        };
    });
}

}  // namespace kxctl
