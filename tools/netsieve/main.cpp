#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <exception>
#include <string>

#include "tools/netsieve/boot_filters_command.h"
#include "tools/netsieve/exit_status.h"
#include "tools/netsieve/image_command.h"
#include "tools/netsieve/replay_command.h"
#include "tools/netsieve/version_command.h"

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
    netsieve::tool::AddBootFiltersCommand(app, status);
    netsieve::tool::AddImageCommand(app, status);
    netsieve::tool::AddVersionCommand(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitStatus::kClean : ExitStatus::kUsage;
    }
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    // A reader of our output that goes away, and a file that may not grow any more, are output
    // failures like any other.
    std::signal(SIGPIPE, SIG_IGN);
    std::signal(SIGXFSZ, SIG_IGN);
    try {
        return static_cast<int>(RunCommandLine(argc, argv));
    } catch (const std::exception& error) {
        fmt::print(stderr, "netsieve: {}\n", error.what());
        return static_cast<int>(ExitStatus::kInternalError);
    }
}
