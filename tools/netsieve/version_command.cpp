#include "tools/netsieve/version_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>
#include <string>

#include "config/system_information.h"
#include "tools/netsieve/driver_session.h"

namespace netsieve::tool {
namespace {

constexpr const char* kHelp = R"(Exit status:
  0  the driver has told its version
  2  the command line is wrong
  5  the driver refused
  6  standard output could not be written
  7  the driver could not be loaded
  9  the driver broke a rule of its platform)";

ExitStatus PrintVersion(const std::string& driver) {
    DriverSession session(driver);
    char version[64] = {};
    NTSTATUS answer = STATUS_UNSUCCESSFUL;
    const ExitStatus status = session.Run([&] {
        ULONG size = sizeof(version);
        answer = session.Ask(SYSINFO_CLASS_VERSION, version, &size);
    });
    if (status != ExitStatus::kClean) {
        return status;
    }
    if (!NT_SUCCESS(answer)) {
        fmt::print(stderr, "netsieve: the driver does not tell its version, status 0x{:08X}\n",
                   static_cast<std::uint32_t>(answer));
        return ExitStatus::kDriverRefused;
    }
    fmt::print("{}\n", version);
    return ExitStatus::kClean;
}

}  // namespace

void AddVersionCommand(CLI::App& app, ExitStatus& status) {
    auto driver = std::make_shared<std::string>("native");
    CLI::App* command =
        app.add_subcommand("version", "Print the version that the driver says it has");
    command->footer(kHelp);
    command
        ->add_option("--driver", *driver,
                     "The driver: native, or the path of a driver image (.sys)")
        ->type_name("native|FILE")
        ->capture_default_str();
    command->callback([driver, &status] { status = PrintVersion(*driver); });
}

}  // namespace netsieve::tool
