// The rules of the boot filter list, written down plainly.
#pragma once

#include "tests/config/config_rig.h"

namespace netsieve::host {

/// The stored state, as the rules say it has to be.
struct BootListModel {
    std::optional<Bytes> list;
    std::optional<std::uint32_t> flag;

    NTSTATUS Add(const std::u16string& name);
    NTSTATUS Remove(const std::u16string& name);
};

/// Any list to start with and any names: what the randomized test and the fuzz target are made of.
struct BootListCase {
    ULONG type = REG_MULTI_SZ;
    std::optional<Bytes> list;
    struct Step {
        bool add;
        std::u16string name;
    };
    std::vector<Step> steps;
};

/// Takes the driver and the model through the steps. Says where they part, or nothing.
std::string Compare(ConfigRig& rig, const BootListCase& steps);

}  // namespace netsieve::host
