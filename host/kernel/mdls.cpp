#include "host/kernel/mdls.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/kernel/callback.h"
#include "host/kernel/paged_memory.h"
#include "host/kernel/unmapped_memory.h"
#include "host/machine.h"
#include "host/ndis/ndis.h"
#include "platform/ndis.h"

namespace netsieve::host {

namespace {
constexpr std::uintptr_t kPageMask = 0xFFF;
}

void DescribeBuffer(MDL& mdl, void* buffer, std::uint32_t size, bool mapped) {
    const auto address = reinterpret_cast<std::uintptr_t>(buffer);
    mdl = {};
    mdl.Size = sizeof(MDL);
    mdl.MdlFlags = mapped ? MDL_SOURCE_IS_NONPAGED_POOL : MDL_PAGES_LOCKED;
    mdl.MappedSystemVa = mapped ? buffer : nullptr;
    mdl.StartVa = reinterpret_cast<void*>(address & ~kPageMask);
    if (!mapped && g_verifyMode) {
        // The pages are someone else's: here they have no address until they are mapped.
        mdl.Process = buffer;
        mdl.StartVa = UnmappedMemory::Start();
    }
    mdl.ByteOffset = static_cast<ULONG>(address & kPageMask);
    mdl.ByteCount = size;
}

void* DescribedBuffer(const MDL& mdl) {
    return mdl.Process != nullptr ? mdl.Process : static_cast<char*>(mdl.StartVa) + mdl.ByteOffset;
}

Mdls::Mdls(Machine& machine)
    : machine_(machine),
      quarantine_(
          [&machine](const std::string& what) {
              machine.verifier().Report(Rule::kPoolUseAfterFree,
                                        what + " was written after it was freed");
          },
          [](void* mdl) { delete static_cast<PMDL>(mdl); }) {}

Mdls::~Mdls() {
    for (const auto& [mdl, origin] : live_) {
        delete mdl;
    }
    for (PMDL mdl : keptBack_) {
        delete mdl;
    }
}

PMDL Mdls::Allocate(void* buffer, std::uint32_t size) {
    if (machine_.faults().Fails(FaultKind::kMdl)) {
        return nullptr;
    }
    if (PagedMemory::Contains(buffer)) {
        machine_.verifier().Report(Rule::kMdlPagedMemory, fmt::format("NdisAllocateMdl for {}",
                                                                      machine_.Describe(buffer)));
    }
    auto* mdl = new MDL;
    DescribeBuffer(*mdl, buffer, size, true);
    HostLock lock(mutex_);
    live_[mdl] = {LoadedDriver::Calling(CurrentContext()), CallingModule()};
    return mdl;
}

void Mdls::Free(PMDL mdl) {
    HostLock lock(mutex_);
    if (live_.erase(mdl) == 0) {
        machine_.verifier().Report(Rule::kPoolDoubleFree,
                                   "NdisFreeMdl of what is no allocated descriptor");
        return;
    }
    lock.unlock();
    if (!machine_.verifier().enabled()) {
        delete mdl;
    } else if (machine_.ndis().nblPools().tracker().MayFreeMdl(mdl)) {
        quarantine_.Add(mdl, mdl, sizeof(*mdl), "an MDL");
    } else {
        lock.lock();
        keptBack_.push_back(mdl);
    }
}

void* Mdls::Map(PMDL mdl) {
    if ((mdl->MdlFlags & MDL_HAS_SYSTEM_ADDRESS) != 0) {
        return mdl->MappedSystemVa;
    }
    if (machine_.faults().Fails(FaultKind::kMapping)) {
        return nullptr;
    }
    mdl->MappedSystemVa = DescribedBuffer(*mdl);
    mdl->MdlFlags |= MDL_MAPPED_TO_SYSTEM_VA;
    return mdl->MappedSystemVa;
}

std::size_t Mdls::Live() {
    HostLock lock(mutex_);
    return live_.size();
}

std::size_t Mdls::AllocatedIn(const void* module) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(live_.begin(), live_.end(),
                      [&](const auto& entry) { return entry.second.module == module; }));
}

std::size_t Mdls::AllocatedBy(const LoadedDriver* driver) {
    HostLock lock(mutex_);
    return static_cast<std::size_t>(
        std::count_if(live_.begin(), live_.end(),
                      [&](const auto& entry) { return entry.second.driver == driver; }));
}

}  // namespace netsieve::host

using namespace netsieve::host;

extern "C" {

PMDL NTAPI NdisAllocateMdl(NDIS_HANDLE, PVOID VirtualAddress, UINT Length) {
    Machine::Current().EnterCall("NdisAllocateMdl");
    return Machine::Current().mdls().Allocate(VirtualAddress, Length);
}

VOID NTAPI NdisFreeMdl(PMDL Mdl) {
    Machine::Current().EnterCall("NdisFreeMdl");
    Machine::Current().mdls().Free(Mdl);
}

PVOID NTAPI MmMapLockedPagesSpecifyCache(PMDL MemoryDescriptorList,
                                         KPROCESSOR_MODE,
                                         MEMORY_CACHING_TYPE,
                                         PVOID,
                                         ULONG,
                                         ULONG) {
    Machine::Current().EnterCall("MmMapLockedPagesSpecifyCache");
    return Machine::Current().mdls().Map(MemoryDescriptorList);
}

MM_SYSTEMSIZE NTAPI MmQuerySystemSize(VOID) {
    return Machine::Current().options().systemSize;
}

}  // extern "C"
