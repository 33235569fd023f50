#include "tools/netsieve/image_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "host/image/kernel_image.h"
#include "host/image/platform_imports.h"
#include "tools/netsieve/native_driver.h"

namespace netsieve::tool {
namespace {

using nlohmann::ordered_json;

constexpr const char* kHelp = R"(Exit status:
  0  the host can run the image
  1  the program itself failed
  2  the command line is wrong
  3  the file cannot be read, or is no x64 image
  6  standard output could not be written
  7  the host cannot run it: it is not what a kernel loads, or imports what is missing here)";

constexpr const char* kDriverImageName = "NETSIEVE.SYS";

/// What a hook filter imports: the driver's exports, the same sixteen natively and of the image.
class DriverNames final : public host::ImportResolver {
  public:
    void* Resolve(std::string_view dll, std::string_view name) const override {
        return host::SameModuleName(dll, kDriverImageName) ? NativeExport(name) : nullptr;
    }
};

/// What is to be said about one image file.
struct ImageReport {
    std::string path;
    std::size_t fileSize = 0;
    std::optional<host::PeFile> file{};  ///< nothing when it cannot be read as an image
    std::optional<host::ImageFault> fault{};
    std::vector<bool> known{};  ///< for each import, whether the host has it

    ExitStatus Status() const {
        if (!file) {
            return ExitStatus::kInputUnreadable;
        }
        return fault ? ExitStatus::kDriverNotLoaded : ExitStatus::kClean;
    }
};

/// Loads the image as the host would; nothing of it runs.
ImageReport Examine(const std::string& path) {
    ImageReport report{.path = path};
    auto bytes = host::ReadImageFile(path);
    if (!bytes) {
        report.fault = bytes.fault();
        return report;
    }
    report.fileSize = bytes.value().size();
    auto file = host::PeFile::Parse(bytes.value());
    if (!file) {
        report.fault = file.fault();
        return report;
    }
    report.file = std::move(file.value());

    const DriverNames driver;
    host::ImportChain imports;
    imports.Add(host::PlatformImports());
    imports.Add(driver);
    for (const host::PeImport& import : report.file->imports()) {
        report.known.push_back(imports.Resolve(import.dll, import.name) != nullptr);
    }
    if (auto image = host::KernelImage::Load(bytes.value(), imports); !image) {
        report.fault = image.fault();
    }
    return report;
}

std::string Protection(const host::PeSection& section) {
    return fmt::format("{}{}{}", section.readable ? 'r' : '-', section.writable ? 'w' : '-',
                       section.executable ? 'x' : '-');
}

std::string NameOf(const host::PeImport& import) {
    return import.name.empty() ? fmt::format("#{}", import.ordinal) : import.name;
}

ordered_json DescribeFile(const ImageReport& report) {
    const host::PeHeader& header = report.file->header();
    ordered_json json = {{"image_base", header.imageBase},
                         {"entry_point", header.entryPoint},
                         {"subsystem", header.subsystem},
                         {"checksum", header.checksum},
                         {"checksum_right", header.checksum == report.file->computedChecksum()},
                         {"movable", !header.fixed},
                         {"functions_with_unwind_data", report.file->functions().size()}};
    json["sections"] = ordered_json::array();
    for (const host::PeSection& section : report.file->sections()) {
        json["sections"].push_back({{"name", section.name},
                                    {"address", section.address},
                                    {"size", section.size},
                                    {"protection", Protection(section)}});
    }
    json["exports"] = ordered_json::array();
    for (const host::PeExport& exported : report.file->exports()) {
        json["exports"].push_back(exported.name);
    }
    json["imports"] = ordered_json::array();
    for (std::size_t i = 0; i < report.known.size(); ++i) {
        const host::PeImport& import = report.file->imports()[i];
        json["imports"].push_back({{"module", import.dll},
                                   {"name", NameOf(import)},
                                   {"known", static_cast<bool>(report.known[i])}});
    }
    return json;
}

void PrintJson(const ImageReport& report) {
    ordered_json json = {{"file", report.path}, {"size", report.fileSize}};
    json["image"] = report.file ? DescribeFile(report) : ordered_json(nullptr);
    json["runnable"] = !report.fault;
    json["fault"] = nullptr;
    if (report.fault) {
        json["fault"] = {{"name", host::ImageErrorName(report.fault->error)},
                         {"message", report.fault->message}};
    }
    json["exit_status"] = static_cast<int>(report.Status());
    // A name from a file need not be UTF-8.
    fmt::print("{}\n", json.dump(2, ' ', false, ordered_json::error_handler_t::replace));
}

void PrintHeader(const ImageReport& report) {
    const host::PeHeader& header = report.file->header();
    const std::uint32_t sum = report.file->computedChecksum();
    fmt::print("{}: x64 image of {} bytes, subsystem {}{}\n", report.path, report.fileSize,
               header.subsystem, header.subsystem == host::kNativeSubsystem ? " (native)" : "");
    fmt::print("base {:#x}{}, entry point {:#x}, checksum {:#x}{}, {} functions with unwind data\n",
               header.imageBase, header.fixed ? " (fixed)" : "", header.entryPoint, header.checksum,
               header.checksum == sum ? std::string() : fmt::format(" (should be {:#x})", sum),
               report.file->functions().size());
    fmt::print("sections:\n");
    for (const host::PeSection& section : report.file->sections()) {
        fmt::print("  {:<8}  {:#8x}  {:6} bytes  {}\n", section.name, section.address, section.size,
                   Protection(section));
    }
}

void PrintNames(const ImageReport& report) {
    fmt::print("exports:{}\n", report.file->exports().empty() ? " none" : "");
    for (const host::PeExport& exported : report.file->exports()) {
        fmt::print("  {}\n", exported.name);
    }
    std::map<std::string, std::vector<std::string>> modules;
    for (std::size_t i = 0; i < report.known.size(); ++i) {
        const host::PeImport& import = report.file->imports()[i];
        modules[import.dll].push_back(NameOf(import) + (report.known[i] ? "" : "  (missing)"));
    }
    for (const auto& [module, names] : modules) {
        fmt::print("imports from {}:\n", module);
        for (const std::string& name : names) {
            fmt::print("  {}\n", name);
        }
    }
}

void PrintText(const ImageReport& report) {
    if (!report.file) {
        // What a file cannot be read for names it already.
        const bool named = report.fault->error == host::ImageError::kUnreadable;
        fmt::print(stderr, "netsieve: {}{}\n", named ? "" : report.path + ": ",
                   report.fault->message);
        return;
    }
    PrintHeader(report);
    PrintNames(report);
    if (report.fault) {
        fmt::print("The host cannot run it ({}): {}\n", host::ImageErrorName(report.fault->error),
                   report.fault->message);
    } else {
        fmt::print("The host can run it.\n");
    }
}

}  // namespace

void AddImageCommand(CLI::App& app, ExitStatus& status) {
    struct Options {
        std::string path;
        bool json = false;
    };
    auto options = std::make_shared<Options>();
    CLI::App* command = app.add_subcommand(
        "image", "Say what is in a driver image, and whether it can be run here");
    command->footer(kHelp);
    command->add_option("FILE", options->path, "The image of a driver or a hook filter (.sys)")
        ->required()
        ->type_name("");
    command->add_flag("--json", options->json, "Report as JSON");
    command->callback([options, &status] {
        const ImageReport report = Examine(options->path);
        options->json ? PrintJson(report) : PrintText(report);
        status = report.Status();
    });
}

}  // namespace netsieve::tool
