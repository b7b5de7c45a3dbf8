#pragma once

// kxctl's command groups. Each adds its subcommands to the command line and, when one of them
// is chosen, fills in the Command that kxctl runs once the library has started.

#include "KXCtlRun.h"

#include <CLI/CLI.hpp>

namespace kxctl {

/// engage, token, call, device-token: the start-up and the raw transport.
void addServiceCommands(CLI::App& app, Command& chosen);

/// guest auto, register, fetch, save, delete, logout.
void addGuestCommands(CLI::App& app, Command& chosen);

/// profile add, enable, disable; subscribe; unsubscribe.
void addProfileCommands(CLI::App& app, Command& chosen);

/// action, defaults.
void addActionCommands(CLI::App& app, Command& chosen);

/// Runs `command` on the guest `guestId`: fetches it first, then starts the command; when the
/// fetch fails, prints its error line instead and the command does not run.
Command onGuest(const std::string& guestId, Command command);

/// inbox summary, messages, message, read, unread, delete, badge: the current guest's inbox.
void addInboxCommands(CLI::App& app, Command& chosen);

/// lists, list get, list create: the business unit's subscription lists.
void addListCommands(CLI::App& app, Command& chosen);

/// lifecycle EVENT...: the application's life as the platform drives it, and the analytics
/// session after each event.
void addLifecycleCommands(CLI::App& app, Command& chosen);

}  // namespace kxctl
