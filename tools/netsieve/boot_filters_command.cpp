#include "tools/netsieve/boot_filters_command.h"

#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "config/boot_filter_list.h"
#include "config/system_information.h"
#include "host/kernel/registry_hive_store.h"
#include "host/kernel/wide_text.h"
#include "tools/netsieve/boot_list.h"
#include "tools/netsieve/driver_session.h"

namespace netsieve::tool {
namespace {

constexpr const char* kHelp = R"(Exit status:
  0  done; adding a name that is there and removing one that is not change nothing
  1  the program itself failed
  2  the command line is wrong
  3  the hive cannot be read, is none, or lacks the control set or the service key
  5  the driver refused: the name or the list is too long, or the name is empty
  6  the hive or standard output could not be written
  7  the driver could not be loaded
  9  the driver broke a rule of its platform
Whenever it is not 0, the hive is as it was.)";

struct BootFiltersOptions {
    std::string hive;  ///< empty: a registry in memory
    std::string driver = "native";
    bool create = false;
    std::optional<LONG> change;  ///< the information class; nothing to do but list when unset
    std::string name;
};

/// What a status of the driver's means to whoever asked for the change.
std::string DescribeRefusal(NTSTATUS status) {
    switch (status) {
        case STATUS_INVALID_PARAMETER:
            return "a name in the list cannot be empty";
        case STATUS_NAME_TOO_LONG:
            return fmt::format("the name does not fit: the list may have {} characters",
                               BOOT_LIST_BUFFER_CHARS);
        case STATUS_BUFFER_TOO_SMALL:
        case STATUS_BUFFER_OVERFLOW:
            return fmt::format(
                "the stored list is longer than the {} bytes that the driver reads; "
                "shorten it with a registry editor",
                BOOT_LIST_READ_LIMIT);
        default:
            return fmt::format("status 0x{:08X}", static_cast<std::uint32_t>(status));
    }
}

/// One run of the command. The steps print what is wrong and leave the status for it.
class BootFiltersCommand {
  public:
    explicit BootFiltersCommand(const BootFiltersOptions& options)
        : options_(options), session_(options.driver) {}

    ExitStatus Run() {
        if (!OpenRegistry() || !FindServiceKey() || !Show(options_.change ? "before" : "now")) {
            return status_;
        }
        if (options_.change && ChangeList() && Show("after") && Save() && hive_ == nullptr) {
            fmt::print("This registry was in memory only; --hive FILE keeps it.\n");
        }
        return status_;
    }

  private:
    bool Fail(ExitStatus status, const std::string& message) {
        fmt::print(stderr, "netsieve: {}\n", message);
        status_ = status;
        return false;
    }

    bool OpenRegistry() {
        if (options_.hive.empty()) {
            store_ = &session_.registry().memory();
            return true;
        }
        std::error_code reason;
        const bool missing = std::filesystem::status(options_.hive, reason).type() ==
                             std::filesystem::file_type::not_found;
        if (missing && !(options_.create && options_.change)) {
            return Fail(ExitStatus::kInputUnreadable,
                        fmt::format("{} does not exist; add with --create makes a new hive",
                                    options_.hive));
        }
        std::string error;
        auto hive = missing ? host::RegistryHiveStore::Create(options_.hive, error)
                            : host::RegistryHiveStore::Open(options_.hive, error);
        if (hive == nullptr) {
            return Fail(ExitStatus::kInputUnreadable, error);
        }
        hive_ = hive.get();
        store_ = hive_;
        session_.registry().Mount(u"Registry\\Machine\\SYSTEM", std::move(hive));
        return !options_.change || CheckChangeable();
    }

    bool CheckChangeable() {
        if (hive_->readOnly()) {
            return Fail(ExitStatus::kOutputFailed,
                        fmt::format("{} is read-only; make it writable first", options_.hive));
        }
        if (hive_->unfinished()) {
            return Fail(ExitStatus::kInputUnreadable,
                        fmt::format("{} was not closed properly: a part of it is still in its log. "
                                    "Start and shut down the system it belongs to first",
                                    options_.hive));
        }
        return true;
    }

    bool FindServiceKey() {
        if (hive_ == nullptr) {
            return NT_SUCCESS(host::CreateRegistryPath(
                *store_, u"Machine\\" + std::u16string(BOOT_LIST_KEY), &serviceKey_));
        }
        const std::u16string set = hive_->CurrentControlSet();
        if (set.empty()) {
            return Fail(ExitStatus::kInputUnreadable,
                        fmt::format("{} does not say which control set is current: it is no SYSTEM "
                                    "hive",
                                    options_.hive));
        }
        host::RegistryKey key = 0;
        if (!NT_SUCCESS(hive_->FindKey(hive_->root(), set, &key))) {
            return Fail(ExitStatus::kInputUnreadable,
                        fmt::format("{} says that {} is current and does not have it",
                                    options_.hive, Printable(set)));
        }
        fmt::print("{}, {}\n", options_.hive, Printable(set));
        return FindServiceKeyIn(set);
    }

    bool FindServiceKeyIn(const std::u16string& set) {
        constexpr std::u16string_view kBelowHive = u"SYSTEM\\";
        const std::u16string path = std::u16string(BOOT_LIST_KEY).substr(kBelowHive.size());
        NTSTATUS status = host::FindRegistryPath(*hive_, hive_->root(),
                                                 host::SplitRegistryPath(path), &serviceKey_);
        if (status == STATUS_OBJECT_NAME_NOT_FOUND && options_.create && options_.change) {
            status = host::CreateRegistryPath(*hive_, path, &serviceKey_);
        }
        if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
            return Fail(ExitStatus::kInputUnreadable,
                        fmt::format("the driver has no service key in {} of {}; install it, or "
                                    "make the key with --create and add",
                                    Printable(set), options_.hive));
        }
        return NT_SUCCESS(status) ||
               Fail(ExitStatus::kInputUnreadable,
                    fmt::format("the service key in {} cannot be read, status 0x{:08X}",
                                options_.hive, static_cast<std::uint32_t>(status)));
    }

    bool Show(const char* when) {
        BootList list;
        const NTSTATUS status = BootList::Read(*store_, serviceKey_, &list);
        if (!NT_SUCCESS(status)) {
            return Fail(ExitStatus::kInputUnreadable,
                        fmt::format("the list cannot be read, status 0x{:08X}",
                                    static_cast<std::uint32_t>(status)));
        }
        fmt::print("{}: {}", when, FormatBootList(list));
        changed_ = shown_ && !(*shown_ == list);
        shown_ = std::move(list);
        return true;
    }

    bool ChangeList() {
        std::u16string name = *host::WideFromUtf8(options_.name);
        NTSTATUS answer = STATUS_UNSUCCESSFUL;
        status_ =
            session_.Run([&] { answer = session_.Ask(*options_.change, name.data(), nullptr); });
        if (status_ != ExitStatus::kClean) {
            return false;
        }
        // The service key is there, so what the driver did not find is the list.
        const bool noList = answer == STATUS_OBJECT_NAME_NOT_FOUND;
        return NT_SUCCESS(answer) || noList ||
               Fail(ExitStatus::kDriverRefused, "the driver refused: " + DescribeRefusal(answer));
    }

    bool Save() {
        std::string error;
        if (hive_ == nullptr || !changed_) {
            return true;
        }
        // What was shown last is the only sign of the change.
        if (std::fflush(stdout) != 0) {
            return Fail(ExitStatus::kOutputFailed,
                        fmt::format("cannot write to standard output: {}; {} was not changed",
                                    std::strerror(errno), options_.hive));
        }
        return hive_->Save(error) || Fail(ExitStatus::kOutputFailed, error);
    }

    const BootFiltersOptions& options_;
    DriverSession session_;
    host::RegistryStore* store_ = nullptr;
    host::RegistryHiveStore* hive_ = nullptr;  ///< the store, when it is a hive
    host::RegistryKey serviceKey_ = 0;
    std::optional<BootList> shown_;
    bool changed_ = false;
    ExitStatus status_ = ExitStatus::kClean;
};

void AddChange(CLI::App& command,
               const std::shared_ptr<BootFiltersOptions>& options,
               LONG informationClass,
               const char* name,
               const char* description) {
    CLI::App* change = command.add_subcommand(name, description);
    change->fallthrough();
    change->add_option("NAME", options->name, "The name of a boot filter")
        ->required()
        ->type_name("")
        ->check([](const std::string& text) {
            return host::WideFromUtf8(text) ? std::string() : "NAME is not UTF-8";
        });
    change->callback([options, informationClass] { options->change = informationClass; });
}

void AddOptions(CLI::App& command, BootFiltersOptions& options) {
    command
        .add_option("--hive", options.hive,
                    "A SYSTEM registry hive; without it, a registry in memory")
        ->type_name("FILE")
        ->check([](const std::string& text) {
            return text.empty() ? "the name of the hive is empty" : std::string();
        });
    command
        .add_option("--driver", options.driver,
                    "The driver that makes a change: native, or the path of a driver image (.sys)")
        ->type_name("native|FILE")
        ->capture_default_str();
    command.add_flag(
        "--create", options.create,
        "Make the hive, or the driver's service key in it, when there is none to change");
}

}  // namespace

void AddBootFiltersCommand(CLI::App& app, ExitStatus& status) {
    auto options = std::make_shared<BootFiltersOptions>();
    CLI::App* command = app.add_subcommand(
        "boot-filters", "Let the driver change the boot filter list in a registry, and show it");
    command->footer(kHelp);
    command->require_subcommand(1);
    AddOptions(*command, *options);
    command->add_subcommand("list", "Show the names and the flag")->fallthrough();
    AddChange(*command, options, SYSINFO_CLASS_ADD_BOOT_FILTER, "add",
              "Add a name, unless it is there in any case of letters");
    AddChange(*command, options, SYSINFO_CLASS_REMOVE_BOOT_FILTER, "remove",
              "If the name is there, remove every name that contains it");
    command->callback([options, &status] { status = BootFiltersCommand(*options).Run(); });
}

}  // namespace netsieve::tool
