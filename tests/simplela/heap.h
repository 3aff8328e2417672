#pragma once

// The heap as the library under test sees it: its calls of malloc and free.

namespace heap {

int live_blocks();  // taken and not yet freed

// Refuses the block that is asked for after `granted` others, and no other one.
void refuse_after(int granted);
bool refused();  // whether that has happened; ends the refusing

// Runs call() once with each of its allocations refused; returns how many there were.
template <typename Call>
int refuse_each(const Call& call) {
    for (int n = 0;; ++n) {
        refuse_after(n);
        call();
        if (!refused()) {
            return n;
        }
    }
}

}  // namespace heap
