#include "tools/netsieve/driver_session.h"

#include <fmt/format.h>

#include "host/kernel/visible_text.h"
#include "tools/netsieve/driver_exports.h"

namespace netsieve::tool {
namespace {

constexpr const char* kExportName = "ITarnHKSystemInformationEx";

}  // namespace

ExitStatus DriverSession::Run(const std::function<void()>& body) {
    const host::RunResult result = machine_.Run([&] {
        if (Start()) {
            body();
        }
        machine_.UnloadDriver(kDriverName);
    });
    if (!result.completed) {
        Fail(result.abandonReason);
    }
    if (failure_) {
        fmt::print(stderr, "netsieve: {}\n", *failure_);
        return ExitStatus::kDriverNotLoaded;
    }
    if (!machine_.verifier().Silent()) {
        fmt::print(stderr, "netsieve: the driver {} broke a rule of its platform\n{}", driver_,
                   machine_.verifier().Describe());
        return ExitStatus::kRuleBroken;
    }
    return ExitStatus::kClean;
}

bool DriverSession::Start() {
    const NTSTATUS status = machine_.LoadDriver(SourceOf(driver_));
    if (!NT_SUCCESS(status)) {
        Fail(fmt::format("status 0x{:08X}", static_cast<std::uint32_t>(status)));
        return false;
    }
    const host::LoadedDriver& driver = *machine_.FindDriver(kDriverName);
    export_ = reinterpret_cast<Export>(FindExport(driver, kExportName));
    if (export_ == nullptr) {
        Fail(fmt::format("it does not export {}", kExportName));
    }
    return export_ != nullptr;
}

void DriverSession::Fail(const std::string& why) {
    failure_ = fmt::format("the driver {} cannot be used: {}", driver_, why);
    for (std::string line : machine_.debugOutput()) {
        line.erase(line.find_last_not_of('\n') + 1);
        *failure_ += "; " + host::VisibleText(line);
    }
}

NTSTATUS DriverSession::Ask(LONG informationClass, PVOID buffer, PULONG size) {
    return export_(nullptr, informationClass, buffer, size);
}

}  // namespace netsieve::tool
