#include "tools/netsieve/replay_faults.h"

#include "host/machine.h"

namespace netsieve::tool {
namespace {

host::Faults& MachineFaults() {
    return host::Machine::Current().faults();
}

}  // namespace

void ReplayFaults::TurnOn() {
    if (wanted_ && !on_) {
        on_ = true;
        MachineFaults().Arm({.probability = 1.0 / oneIn_, .seed = random_.Next()});
    }
}

void ReplayFaults::TurnOff() {
    if (on_) {
        failed_ += MachineFaults().Injected();
        MachineFaults().Disarm();
        on_ = false;
    }
}

std::uint64_t ReplayFaults::Failed() const {
    return failed_ + (on_ ? MachineFaults().Injected() : 0);
}

}  // namespace netsieve::tool
