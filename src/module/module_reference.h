// The hold that a data-path call has on its module.
#pragma once

#include "module/filter_module.h"

// Takes a reference and returns NDIS_STATUS_SUCCESS, or NDIS_STATUS_INVALID_PARAMETER when `module`
// is NULL, or NDIS_STATUS_CLOSING when it is not in ModuleList; the pointer is not followed before
// it was found there. A module that is being detached is referenced too: the status stays
// NDIS_STATUS_CLOSING then and *heldClosing becomes true, else false. IRQL <= DISPATCH_LEVEL.
NDIS_STATUS FASTABI ReferenceFilterModule(FILTER_MODULE* module, bool* heldClosing)
    EXCLUDES_LOCK(g_DriverGlobals.ModuleListLock);

// Drops a reference; the module may be gone when it returns. A NULL module is ignored.
// IRQL <= DISPATCH_LEVEL.
void FASTABI DereferenceFilterModule(FILTER_MODULE* module)
    EXCLUDES_LOCK(g_DriverGlobals.ModuleListLock);

// References a module for a scope, if it can.
class ModuleReference {
  public:
    explicit ModuleReference(FILTER_MODULE* module)
        : module_(module), live_(ReferenceFilterModule(module, &closing_) == NDIS_STATUS_SUCCESS) {}
    ~ModuleReference() {
        if (Held()) {
            DereferenceFilterModule(module_);
        }
    }

    ModuleReference(const ModuleReference&) = delete;
    ModuleReference& operator=(const ModuleReference&) = delete;

    // The module is attached: the call does its work.
    bool Live() const { return live_; }
    // The module is being detached: the call may only complete or return its NBLs.
    bool Closing() const { return closing_; }
    // One of the two. Otherwise the module is gone, and its handle with it.
    bool Held() const { return live_ || closing_; }

  private:
    FILTER_MODULE* module_;
    bool closing_ = false;
    bool live_;
};
