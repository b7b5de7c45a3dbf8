// kxsandbox: a local service that speaks the guest-messaging service's REST protocol, for
// developing and testing applications without the hosted service, and operator commands on its
// database.
//
// Exit status: 0 success, 1 a failure (database, configuration, unknown guest), 2 a usage error.

#include "KXSandboxOperator.h"
#include "KXSandboxServer.h"
#include "KXSandboxTokens.h"
#include "KXToolMain.h"

#include <CLI/CLI.hpp>

#include <pthread.h>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <thread>

namespace {

using namespace kxsandbox;

struct ServeArguments {
    ServeOptions options;
    std::vector<std::string> configs;
    std::vector<std::string> keys;
};

/// Serves until SIGINT or SIGTERM. The signals are taken by a thread of their own with
/// sigwait(), so stopping the server never runs inside a signal handler.
int serve(Database& database, const ServeArguments& arguments, const sigset_t& signals) {
    if (arguments.keys.size() != arguments.configs.size() &&
        !(arguments.keys.size() == 1 && !arguments.configs.empty())) {
        std::cerr << "kxsandbox: give each --config its --key (or one --key for all)\n";
        return 2;
    }
    for (std::size_t i = 0; i < arguments.configs.size(); ++i) {
        const std::string& key = arguments.keys.size() == 1 ? arguments.keys[0] : arguments.keys[i];
        const Registration registration =
            registerConfiguration(database, arguments.configs[i], key);
        std::string clients;
        for (const std::string& id : registration.clientIds) {
            clients += " " + id;
        }
        std::printf("registered %s: clients%s; inbox domain %s\n", arguments.configs[i].c_str(),
                    clients.empty() ? " (none)" : clients.c_str(),
                    registration.inboxDomainId.value_or("(none)").c_str());
    }

    Server server(database, arguments.options);
    const int port = server.bind();
    if (port < 0) {
        std::cerr << "kxsandbox: cannot listen on " << arguments.options.host << ":"
                  << arguments.options.port << '\n';
        return 1;
    }
    std::thread stopper([&server, &signals] {
        int received = 0;
        sigwait(&signals, &received);
        server.stop();
    });
    std::printf("kxsandbox listening on http://%s:%d (database %s)\n",
                arguments.options.host.c_str(), port, database.file().c_str());
    std::fflush(stdout);
    server.serve();
    // The stopper thread waits for a signal; when serving ended otherwise, send it one.
    pthread_kill(stopper.native_handle(), SIGTERM);
    stopper.join();
    return 0;
}

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw OperatorError("cannot read " + path);
    }
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before any thread starts (the library starts some while it opens a configuration),
    // so that every thread inherits the mask and only the stopper thread takes these signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    CLI::App app{"kxsandbox: a local guest-messaging service for development and tests"};
    app.require_subcommand(1);
    app.fallthrough();
    std::string databaseFile = Database::defaultFile().string();
    bool json = false;
    app.add_option("--db", databaseFile, "database file")->capture_default_str();
    app.add_flag("--json", json, "operator commands print JSON instead of a table");

    ServeArguments serveArguments;
    ServeOptions& options = serveArguments.options;
    auto* serveCommand = app.add_subcommand("serve", "answer the REST protocol on loopback");
    serveCommand->add_option("--port", options.port, "port (0 picks a free one)")
        ->capture_default_str()
        ->check(CLI::Range(0, 65535));
    serveCommand->add_option("--host", options.host, "address to listen on")->capture_default_str();
    serveCommand->add_flag("--seed", options.seed,
                           "demo data: six lists per base path, 25 welcome messages for each "
                           "guest that registers");
    serveCommand->add_option("--config", serveArguments.configs,
                             "sealed KXConfig.enc whose client credentials and inbox domain to "
                             "register (repeatable)");
    serveCommand->add_option("--key", serveArguments.keys, "the key of each --config");
    serveCommand
        ->add_option("--latency", options.latencyMilliseconds,
                     "delay every answer by this many milliseconds")
        ->check(CLI::Range(0, 600000));
    serveCommand
        ->add_option("--fail-rate", options.failRate,
                     "share of answers (0 to 1) that are a 503 with a JSON body")
        ->check(CLI::Range(0.0, 1.0));
    serveCommand
        ->add_option("--token-lifetime", options.tokenLifetimeSeconds,
                     "seconds a bearer token is valid")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000000));
    serveCommand->add_option("--threads", options.threads, "requests served at once")
        ->capture_default_str()
        ->check(CLI::Range(1, 1024));

    MessageToSend message;
    std::optional<std::string> htmlFile;
    std::optional<std::string> text;
    std::optional<std::string> url;
    auto* messageCommand = app.add_subcommand("message", "messages to guests");
    messageCommand->require_subcommand(1);
    auto* sendCommand = messageCommand->add_subcommand("send", "deliver a message to an inbox");
    sendCommand->add_option("--guest", message.guest, "the guest's external id")->required();
    sendCommand->add_option("--domain", message.domain, "inbox domain");
    sendCommand->add_option("--tenant", message.tenant, "base path or business unit");
    sendCommand->add_option("--subject", message.subject, "subject")->required();
    sendCommand->add_option("--sender", message.sender, "sender")->capture_default_str();
    auto* content = sendCommand->add_option_group("content")->require_option(1);
    content->add_option("--html", htmlFile, "HTML content from a file");
    content->add_option("--text", text, "plain text content");
    content->add_option("--url", url, "a URL as content");

    std::optional<std::string> tenant;
    auto* guestsCommand = app.add_subcommand("guests", "the guests");
    guestsCommand->add_option("--tenant", tenant, "only this base path or business unit");

    std::string inboxGuest;
    std::optional<std::string> inboxDomain;
    auto* inboxCommand = app.add_subcommand("inbox", "a guest's inbox");
    inboxCommand->add_option("GUEST", inboxGuest, "the guest's external id")->required();
    inboxCommand->add_option("--domain", inboxDomain, "inbox domain");
    inboxCommand->add_option("--tenant", tenant, "base path or business unit");

    std::optional<std::string> sessionGuest;
    auto* sessionsCommand = app.add_subcommand("sessions", "analytics sessions");
    sessionsCommand->add_option("--guest", sessionGuest, "only this guest's sessions");

    auto* listsCommand = app.add_subcommand("lists", "subscription lists");
    listsCommand->add_option("--tenant", tenant, "only this base path or business unit");

    auto* listCommand = app.add_subcommand("list", "one subscription list");
    listCommand->require_subcommand(1);
    std::string listTenant;
    std::string listId;
    std::string listName;
    std::optional<std::string> listDescription;
    std::vector<std::string> listTags;
    auto* createCommand = listCommand->add_subcommand("create", "create a list");
    createCommand->add_option("--tenant", listTenant, "base path or business unit")->required();
    createCommand->add_option("--id", listId, "the list's external id (default: generated)");
    createCommand->add_option("--name", listName, "name")->required();
    createCommand->add_option("--description", listDescription, "description");
    createCommand->add_option("--tag", listTags, "tag (repeatable)");

    if (const auto status = kxtool::parseCommandLine(app, argc, argv)) {
        return *status;
    }

    if (!serveCommand->parsed()) {
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
    }
    return kxtool::runReportingFailures("kxsandbox", [&] {
        Database database(databaseFile);
        if (serveCommand->parsed()) {
            return serve(database, serveArguments, signals);
        }
        if (sendCommand->parsed()) {
            if (htmlFile) {
                message.contentType = "text/html";
                message.content = readFile(*htmlFile);
            } else if (text) {
                message.contentType = "text/plain";
                message.content = *text;
            } else {
                message.contentType = "text/uri-list";
                message.content = *url;
            }
            const nlohmann::json sent = sendMessage(database, message);
            if (json) {
                std::cout << sent.dump() << '\n';
            } else {
                std::cout << "sent " << sent["id"].get<std::string>() << " to " << message.guest
                          << " (" << sent["domain"].get<std::string>() << ", "
                          << sent["tenant"].get<std::string>() << ")\n";
            }
        } else if (guestsCommand->parsed()) {
            printRows(std::cout, listGuests(database, tenant),
                      {{"tenant", "BASE PATH"},
                       {"externalId", "GUEST"},
                       {"channels", "PROFILES"},
                       {"messages", "MESSAGES"},
                       {"unread", "UNREAD"}},
                      json);
        } else if (inboxCommand->parsed()) {
            printRows(std::cout, listInbox(database, inboxGuest, tenant, inboxDomain),
                      {{"id", "MESSAGE"},
                       {"read", "READ"},
                       {"received", "RECEIVED"},
                       {"contentType", "TYPE"},
                       {"subject", "SUBJECT"}},
                      json);
        } else if (sessionsCommand->parsed()) {
            printRows(std::cout, listSessions(database, sessionGuest),
                      {{"tenant", "BASE PATH"},
                       {"id", "SESSION"},
                       {"guest", "GUEST"},
                       {"started", "STARTED"},
                       {"updates", "UPDATES"},
                       {"closed", "CLOSED"}},
                      json);
        } else if (listsCommand->parsed()) {
            printRows(std::cout, listLists(database, tenant),
                      {{"tenant", "BASE PATH"},
                       {"externalId", "LIST"},
                       {"name", "NAME"},
                       {"tagText", "TAGS"},
                       {"countText", "CHANNELS"}},
                      json);
        } else if (createCommand->parsed()) {
            nlohmann::json body = {{"name", listName}};
            if (!listId.empty()) {
                body["externalId"] = listId;
            }
            if (listDescription) {
                body["description"] = *listDescription;
            }
            if (!listTags.empty()) {
                body["tags"] = listTags;
            }
            const nlohmann::json created = createListCommand(database, listTenant, body);
            if (json) {
                std::cout << created.dump() << '\n';
            } else {
                std::cout << "created list " << created["externalId"].get<std::string>()
                          << " under " << created["tenant"].get<std::string>() << '\n';
            }
        }
        return 0;
    });
}
