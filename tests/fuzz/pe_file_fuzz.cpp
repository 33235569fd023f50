// Any bytes as an image: refused with a reason, or sound in all that the loader relies on, which is
// tested here without the parser's own arithmetic.

#include <cstdio>
#include <cstdlib>

#include "host/image/pe_file.h"

namespace netsieve::host {
namespace {

void Demand(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "an accepted image where not: %s\n", what);
        std::abort();
    }
}

bool Inside(const PeFile& file, std::uint64_t address, std::uint64_t size) {
    return address + size <= file.header().imageSize;
}

void DemandSound(const PeFile& file) {
    Demand(file.layout().size() == file.header().imageSize, "the layout is the image");
    std::uint64_t end = file.header().headersSize;
    for (const PeSection& section : file.sections()) {
        Demand(section.address >= end, "sections ascend and do not overlap");
        end = std::uint64_t{section.address} + section.size;
        Demand(Inside(file, section.address, section.size), "a section lies in the image");
    }
    for (const PeImport& import : file.imports()) {
        Demand(Inside(file, import.slot, 8) && !import.dll.empty(), "an import has room");
    }
    for (std::size_t i = 0; i < file.exports().size(); ++i) {
        const PeExport& one = file.exports()[i];
        Demand(!one.forwarder.empty() || Inside(file, one.address, 1), "an export is there");
        Demand(i == 0 || file.exports()[i - 1].name <= one.name, "exports ascend");
        Demand(file.FindExport(one.name) != nullptr, "an export is found");
    }
    for (const std::uint32_t at : file.relocations()) {
        Demand(Inside(file, at, 8), "a relocation has room");
    }
    for (const PeFunction& function : file.functions()) {
        Demand(function.begin < function.end && Inside(file, function.begin, 0) &&
                   Inside(file, function.end, 0) && Inside(file, function.unwindInfo, 4),
               "a function lies in the image");
    }
}

}  // namespace
}  // namespace netsieve::host

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace netsieve::host;
    const auto parsed = PeFile::Parse({data, size});
    if (parsed) {
        DemandSound(parsed.value());
    } else {
        Demand(!parsed.fault().message.empty(), "a refusal has a reason");
    }
    return 0;
}
