// A small model of a meeting: a stack with the driver, and actors whose schedules are all run.
#pragma once

#include "tests/driver/schedule_scenarios.h"

namespace netsieve::host {

/// One stack with the driver, closed to the exploration until its actors start.
class Model {
  public:
    Model(Machine& machine, ScheduleTree& tree)
        : stack(machine.ndis().AddAdapter()), machine_(machine), tree_(tree) {
        tree_.SetOpen(false);
        EXPECT_EQ(machine.LoadDriver(DriverUnderTest()), STATUS_SUCCESS);
    }

    FilterModule& Filter() { return *stack.FindModule(machine_.FindDriver("NETSIEVE")); }

    void Start(ContextKind kind, unsigned processor, std::function<void()> body) {
        contexts_.push_back(machine_.scheduler().Start(
            {.name = "actor", .kind = kind, .processor = processor}, std::move(body)));
    }
    void JoinAll() { machine_.scheduler().JoinAll(std::exchange(contexts_, {})); }
    /// Every actor that `moment` starts ends inside it, as do its workers.
    void Explore(const std::function<void()>& moment) {
        tree_.SetOpen(true);
        moment();
        JoinAll();
        machine_.scheduler().WaitUntilIdle();
        tree_.SetOpen(false);
    }

    Stack& stack;
    std::string wrong;

  private:
    Machine& machine_;
    ScheduleTree& tree_;
    std::vector<std::uint32_t> contexts_;
};

/// A model by its name; `run` says what was wrong in a schedule, or nothing.
struct ModelCase {
    const char* name;
    unsigned preemptions;
    std::function<std::string(Machine&, ScheduleTree&)> run;
    bool watchHooks = true;  ///< not where a hook breaks its rules on purpose
};

inline void PrintTo(const ModelCase& model, std::ostream* out) {
    *out << model.name;
}

/// Runs every schedule of the model on three processors. Nothing may be left of any.
inline void RunCase(const ModelCase& model) {
    std::string wrong;
    RunModel(
        {.name = model.name,
         .machine = {.processors = 3, .watchHooks = model.watchHooks},
         .preemptions = model.preemptions},
        [&](Machine& machine, ScheduleTree& tree) { wrong = model.run(machine, tree); },
        [&](Machine& machine) {
            const Accounting stock = TakeStock(machine);
            return stock.Balanced() ? wrong : wrong + stock.Describe();
        });
}

}  // namespace netsieve::host
