#pragma once

// What every command-line tool of this project does around its commands: parse the command line
// (CLI11 prints help and usage errors itself) and turn an exception that escapes a command into
// one line on standard error instead of an abort.

#include <CLI/CLI.hpp>

#include <exception>
#include <iostream>
#include <optional>
#include <string_view>

namespace kxtool {

/// Exit status of a failed command.
inline constexpr int kFailure = 1;
/// Exit status of a command line that could not be used.
inline constexpr int kUsage = 2;

/// Parses `argv` into `app`. Returns the status to exit with when the tool ends here (0 after
/// --help, kUsage after a usage error), or std::nullopt when the command should run.
inline std::optional<int> parseCommandLine(CLI::App& app, int argc, char** argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        app.exit(error);
        return kUsage;
    }
    return std::nullopt;
}

/// Runs `command` and returns its status; an exception escaping it is printed as
/// "<tool>: <what>" and gives kFailure.
template <typename Command>
int runReportingFailures(std::string_view tool, Command&& command) {
    try {
        return command();
    } catch (const std::exception& error) {
        std::cerr << tool << ": " << error.what() << '\n';
        return kFailure;
    }
}

}  // namespace kxtool
