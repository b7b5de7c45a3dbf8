#pragma once

// kxctl's command groups. Each adds its subcommands to the command line and, when one of them
// is chosen, fills in the Command that kxctl runs once the library has started.

#include "KXCtlRun.h"

#include <CLI/CLI.hpp>

namespace kxctl {

/// engage, token, call, device-token: the start-up and the raw transport.
void addServiceCommands(CLI::App& app, Command& chosen);

/// inbox summary, messages, message, read, unread, delete, badge: the current guest's inbox.
void addInboxCommands(CLI::App& app, Command& chosen);

/// lists, list get, list create: the business unit's subscription lists.
void addListCommands(CLI::App& app, Command& chosen);

}  // namespace kxctl
