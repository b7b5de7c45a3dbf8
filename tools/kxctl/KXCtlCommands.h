#pragma once

// kxctl's command groups. Each adds its subcommands to the command line and, when one of them
// is chosen, fills in the Command that kxctl runs once the library has started.

#include "KXCtlRun.h"

#include <CLI/CLI.hpp>

namespace kxctl {

/// engage, token, call, device-token: the start-up and the raw transport.
void addServiceCommands(CLI::App& app, Command& chosen);

}  // namespace kxctl
