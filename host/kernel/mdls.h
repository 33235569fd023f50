// MDLs.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "host/kernel/quarantine.h"
#include "host/verifier/verifier.h"
#include "platform/kernel.h"

namespace netsieve::host {

class LoadedDriver;
class Machine;

/// Fills an MDL of the caller's for a buffer of `size` bytes. With `mapped` the system address is
/// in it; without, a reader has to ask MmMapLockedPagesSpecifyCache for one: with the verifier on,
/// StartVa then leads nowhere.
void DescribeBuffer(MDL& mdl, void* buffer, std::uint32_t size, bool mapped);
/// The buffer that an MDL describes, mapped or not. For the host, which made all of them.
void* DescribedBuffer(const MDL& mdl);

/// The MDLs that drivers allocated.
class Mdls {
  public:
    explicit Mdls(Machine& machine);
    ~Mdls();

    PMDL Allocate(void* buffer, std::uint32_t size);
    void Free(PMDL mdl);
    /// The buffer's system address, mapping it first if need be; null on a fault.
    void* Map(PMDL mdl);
    /// Allocated now, by anyone.
    std::size_t Live();
    std::size_t AllocatedBy(const LoadedDriver* driver);
    /// In callbacks of the filter module.
    std::size_t AllocatedIn(const void* module);
    /// Checks the freed MDLs in quarantine and releases them.
    void Settle() { quarantine_.Drain(); }

  private:
    Machine& machine_;
    Quarantine quarantine_;
    HostMutex mutex_;
    struct Origin {
        const LoadedDriver* driver;
        const void* module;
    };
    std::map<PMDL, Origin> live_;
    std::vector<PMDL> keptBack_;  ///< freed too early: somebody may still read them
};

}  // namespace netsieve::host
