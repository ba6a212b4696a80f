// The Java threads of a JVM, as it keeps them.
#pragma once

#include "vm_table.h"

namespace qorctl::outside {

// States of a thread; those between two of them have odd numbers.
enum JavaState { JAVA_NEW = 2, JAVA_IN_NATIVE = 4, JAVA_IN_VM = 6, JAVA_IN_JAVA = 8, JAVA_BLOCKED = 10 };

// "in Java", "in native code", ...
const char *JavaStateText(int state);

struct ThreadFacts {
    Address self = 0;
    pid_t os_id = 0; // as the process itself knows it
    int state = 0;
    Address anchor_sp = 0, anchor_pc = 0, anchor_fp = 0; // its last Java frame, when it isn't in Java
    Address stack_base = 0, stack_size = 0;
    Address pending_monitor = 0, waiting_monitor = 0;
};

// The threads now. Empty when the list can't be read, which changes under our eyes: a list that isn't the
// current one any more by the end of the read is read again.
std::vector<Address> ReadThreadList(Memory &memory, const VmTable &table);

// A thread's facts, of one moment as far as one copy of some hundred bytes is. False unless it is a thread.
bool ReadThread(Memory &memory, const VmTable &table, const VmSymbols &symbols, Address at,
                ThreadFacts *facts);

} // namespace qorctl::outside
