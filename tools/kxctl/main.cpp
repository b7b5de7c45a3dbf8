// kxctl: drives the library from a shell. Opens the sealed configuration, starts the library
// the way an application does (launch event, engageUsingKey() from the application delegate,
// the bearer token), runs one command, prints JSON lines on standard output and terminates the
// application (WillTerminate) once the library is idle.
//
// Exit status: 0 everything succeeded, 1 a service, token or configuration failure (any error
// line printed), 2 a usage error, 3 the --timeout ran out.

#include "KXCtlCommands.h"
#include "KXCtlOptions.h"
#include "KXCtlStartup.h"
#include "KXToolMain.h"

#include <CLI/CLI.hpp>

#include <iostream>

int main(int argc, char** argv) {
    using namespace kxctl;
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
    app.add_option("--guest", options.guest,
                   "fetch this guest before the command, which then acts on it");
    app.add_option("--launch-notification", options.launchNotification,
                   "launch the application from this remote notification (a JSON object)");

    Command chosen;
    addServiceCommands(app, chosen);
    addGuestCommands(app, chosen);
    addProfileCommands(app, chosen);
    addActionCommands(app, chosen);
    addInboxCommands(app, chosen);
    addListCommands(app, chosen);
    addLifecycleCommands(app, chosen);

    if (const auto status = kxtool::parseCommandLine(app, argc, argv)) {
        return *status;
    }
    return kxtool::runReportingFailures("kxctl", [&] {
        try {
            return startAndRun(options, options.guest ? onGuest(*options.guest, chosen) : chosen);
        } catch (const UsageError& error) {
            std::cerr << "kxctl: " << error.message << '\n';
            return kUsage;
        } catch (const Failure& failure) {
            std::cerr << "kxctl: " << failure.message << '\n';
            return kFailure;
        }
    });
}
