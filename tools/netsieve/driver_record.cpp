#include "tools/netsieve/driver_record.h"

#include <string_view>

namespace netsieve::tool {
namespace {

/// The name that our driver registers by, whoever built it and under whatever file name.
constexpr std::u16string_view kUniqueName = u"{7C1E5B39-2D84-4a6f-B0E2-9F31C6A8D547}";

}  // namespace

FILTER_MODULE* RecordOf(const host::FilterModule& module) {
    const UNICODE_STRING& name = module.handlers.UniqueName;
    const bool ours = name.Buffer != nullptr &&
                      std::u16string_view(name.Buffer, name.Length / sizeof(WCHAR)) == kUniqueName;
    return ours ? static_cast<FILTER_MODULE*>(module.context) : nullptr;
}

}  // namespace netsieve::tool
