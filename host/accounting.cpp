#include "host/accounting.h"

#include <fmt/format.h>

#include "host/machine.h"
#include "host/ndis/ndis.h"

namespace netsieve::host {

namespace {

struct Item {
    std::uint64_t Accounting::*count;
    const char* name;
};
constexpr Item kItems[] = {
    {&Accounting::poolBlocks, "pool block(s)"},
    {&Accounting::nblsOutstanding, "outstanding NBL(s)"},
    {&Accounting::driverNbls, "NBL(s) of drivers"},
    {&Accounting::nblPools, "NBL pool(s)"},
    {&Accounting::mdls, "MDL(s)"},
    {&Accounting::devices, "device(s)"},
    {&Accounting::workItems, "work item(s)"},
    {&Accounting::timers, "timer(s)"},
    {&Accounting::waiters, "waiting context(s)"},
    {&Accounting::registrations, "registered filter driver(s)"},
};

}  // namespace

bool Accounting::Balanced() const {
    return Describe() == Accounting().Describe();
}

std::string Accounting::Describe() const {
    std::string text;
    for (const Item& item : kItems) {
        if (this->*item.count != 0) {
            text += fmt::format("{}{} {}", text.empty() ? "not given back: " : ", ",
                                this->*item.count, item.name);
        }
    }
    return text.empty() ? "everything was given back" : text;
}

Accounting TakeStock(Machine& machine) {
    Ndis& ndis = machine.ndis();
    return {.poolBlocks = machine.pool().liveBlocks(),
            .nblsOutstanding = ndis.nblPools().tracker().Outstanding(),
            .driverNbls = ndis.nblPools().DriverNbls(),
            .nblPools = ndis.nblPools().DriverPools(),
            .mdls = machine.mdls().Live(),
            .devices = machine.devices().Live(),
            .workItems = machine.devices().LiveWorkItems(),
            .timers = machine.timers().Live(),
            .waiters = machine.events().waiters(),
            .registrations = ndis.Registrations()};
}

}  // namespace netsieve::host
