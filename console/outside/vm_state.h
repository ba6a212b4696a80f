// What a JVM as a whole is at: its safepoint, the operation for it, a collection.
#pragma once

#include "vm_table.h"

namespace qorctl::outside {

enum SafepointPhase { NO_SAFEPOINT = 0, SAFEPOINT_BEGUN = 1, SAFEPOINT_REACHED = 2 };

struct SafepointState {
    std::optional<int> phase;        // nothing without symbols for it and the counter
    std::optional<uint64_t> counter; // differs from one safepoint to the next
    std::optional<int> waiting_for;  // threads that haven't reached it
    std::string operation;           // the class, "VM_G1CollectForAllocation"; empty when there is none
    Address asked_by = 0;            // the thread that waits for the operation
    std::optional<double> seconds;   // since it began
    std::optional<bool> collects;    // a collection that stops the threads
};

SafepointState ReadSafepoint(Memory &memory, const VmTable &table, const VmSymbols &symbols);

} // namespace qorctl::outside
