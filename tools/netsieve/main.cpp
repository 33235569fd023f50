#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <string>

#include "tools/netsieve/exit_status.h"
#include "tools/netsieve/replay_command.h"

namespace {

using netsieve::tool::ExitStatus;

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
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitStatus::kClean : ExitStatus::kUsage;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader of our output that goes away is an output failure like any other.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return static_cast<int>(RunCommandLine(argc, argv));
    } catch (const std::exception& error) {
        fmt::print(stderr, "netsieve: {}\n", error.what());
        return static_cast<int>(ExitStatus::kInternalError);
    }
}
