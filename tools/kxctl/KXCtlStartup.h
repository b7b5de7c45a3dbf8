#pragma once

// kxctl's start-up: open the configuration, install the platform, launch the application whose
// delegate engages the library, wait for the bearer token, run the command until the library is
// idle, and terminate the application.

#include "KXCtlOptions.h"
#include "KXCtlRun.h"

namespace kxctl {

/// Starts the library as an application does and runs `command`. Returns the exit status;
/// throws UsageError or Failure for problems found before anything was sent.
int startAndRun(Options options, const Command& command);

}  // namespace kxctl
