#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>
#include <vector>

#include "host/verifier/run_notes.h"
#include "tools/netsieve/boot_filters_command.h"
#include "tools/netsieve/exit_status.h"
#include "tools/netsieve/image_command.h"
#include "tools/netsieve/replay_command.h"
#include "tools/netsieve/version_command.h"

namespace {

using netsieve::tool::ExitStatus;

/// Prints what is wrong with the command line, or the help that was asked for.
ExitStatus Explain(const CLI::App& app, const CLI::ParseError& error) {
    const std::vector<std::string> rest = app.remaining(true);
    // The library would only say that a command is missing.
    if (error.get_name() == "RequiredError" && !rest.empty() && rest.front().front() != '-') {
        fmt::print(stderr, "'{}' is no command here.\nRun with --help for more information.\n",
                   rest.front());
        return ExitStatus::kUsage;
    }
    return app.exit(error) == 0 ? ExitStatus::kClean : ExitStatus::kUsage;
}

ExitStatus RunCommandLine(int argc, char** argv) {
    CLI::App app(
        "Runs a packet-interception driver on a machine that lives in this process, and "
        "shows what it does to the frames of a capture.");
    app.name("netsieve");
    app.set_version_flag("--version", "netsieve " NETSIEVE_VERSION);
    app.set_help_all_flag("--help-all", "Print the help of every command");
    app.require_subcommand(1);
    app.footer(std::string(netsieve::tool::kExitStatusHelp));
    ExitStatus status = ExitStatus::kClean;
    netsieve::tool::AddReplayCommand(app, status);
    netsieve::tool::AddBootFiltersCommand(app, status);
    netsieve::tool::AddImageCommand(app, status);
    netsieve::tool::AddVersionCommand(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return Explain(app, error);
    }
    return status;
}

/// The command line in a form that a shell takes.
std::string CommandLine(int argc, char** argv) {
    std::string line;
    for (int i = 0; i < argc; ++i) {
        std::string_view argument(argv[i]);
        line += i == 0 ? "" : " ";
        if (argument.find_first_of(" \t\n\"'\\$&|;<>()*?[]#~`!{}") == argument.npos) {
            line += argument;
            continue;
        }
        line += '\'';
        for (const char character : argument) {
            line += character == '\'' ? std::string("'\\''") : std::string(1, character);
        }
        line += '\'';
    }
    return line;
}

/// Whether something that was to be read on standard output has not got there, which is said.
bool OutputFailed() {
    const bool failsNow = std::fflush(stdout) != 0;
    if (!failsNow && std::ferror(stdout) == 0) {
        return false;
    }
    fmt::print(stderr, "netsieve: cannot write all of standard output{}\n",
               failsNow ? fmt::format(": {}", std::strerror(errno)) : std::string());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader of our output that goes away, and a file that may not grow any more, are output
    // failures like any other.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    netsieve::host::NoteReplay(CommandLine(argc, argv));
    ExitStatus status = ExitStatus::kClean;
    try {
        status = RunCommandLine(argc, argv);
    } catch (const std::exception& error) {
        // The formatting library throws when it cannot print, which is no fault of the program's.
        if (std::ferror(stdout) == 0) {
            fmt::print(stderr, "netsieve: {}\n", error.what());
            return static_cast<int>(ExitStatus::kInternalError);
        }
    }
    return static_cast<int>(
        OutputFailed() ? netsieve::tool::Graver(status, ExitStatus::kOutputFailed) : status);
}
