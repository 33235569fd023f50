// Undoes a step of building something unless the whole of it succeeded.
#pragma once

// Calls `undo` at the end of its scope, unless it was dismissed before. Guards that are declared
// one after the other undo in the opposite order.
template <typename Undo>
class UndoGuard {
  public:
    explicit UndoGuard(Undo undo) : undo_(undo) {}
    ~UndoGuard() {
        if (armed_) {
            undo_();
        }
    }

    UndoGuard(const UndoGuard&) = delete;
    UndoGuard& operator=(const UndoGuard&) = delete;

    // What was built stays.
    void Dismiss() { armed_ = false; }

  private:
    Undo undo_;
    bool armed_ = true;
};
