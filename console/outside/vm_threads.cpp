#include "vm_threads.h"

#include <cstring>
#include <unordered_set>

namespace qorctl::outside {

namespace {

constexpr int LIST_ATTEMPTS = 50;
constexpr size_t MOST_THREADS = 100000;
constexpr int64_t LARGEST_THREAD = 65536;

// JDK 8 and 11 have a chain, which is read until two readings are the same: a thread that ends meanwhile
// leads out of it.
std::vector<Address> ReadChain(Memory &memory, const VmTable &table) {
    std::vector<Address> threads, before;
    for (int i = 0; i < LIST_ATTEMPTS; ++i) {
        before.swap(threads);
        threads.clear();
        std::unordered_set<Address> known;
        for (Address at = memory.FreshWord(table.Static(Vm::LIST_HEAD));
             at != 0 && threads.size() < MOST_THREADS && known.insert(at).second;
             at = memory.FreshWord(table.In(at, Vm::THREAD_NEXT)))
            threads.push_back(at);
        if (threads == before)
            break;
    }
    return threads;
}

} // namespace

const char *JavaStateText(int state) {
    switch (state & ~1) {
    case JAVA_NEW:
        return "new";
    case JAVA_IN_NATIVE:
        return "in native code";
    case JAVA_IN_VM:
        return "in the JVM";
    case JAVA_IN_JAVA:
        return "in Java";
    case JAVA_BLOCKED:
        return "blocked";
    default:
        return "in an unknown state";
    }
}

std::vector<Address> ReadThreadList(Memory &memory, const VmTable &table) {
    std::vector<Address> threads;
    const Address head = table.Static(Vm::THREADS_LIST);
    for (int i = 0; head != 0 && i < LIST_ATTEMPTS; ++i) {
        const Address list = memory.FreshWord(head);
        const auto count = memory.FreshAt<uint32_t>(table.In(list, Vm::LIST_LENGTH));
        if (list == 0 || count == 0 || count > MOST_THREADS)
            continue;
        threads.assign(count, 0);
        const Address array = memory.FreshWord(table.In(list, Vm::LIST_THREADS));
        if (memory.ReadFresh(array, threads.data(), count * sizeof(Address)) &&
            memory.FreshWord(head) == list)
            return threads;
    }
    return head == 0 ? ReadChain(memory, table) : std::vector<Address>();
}

bool ReadThread(Memory &memory, const VmTable &table, const VmSymbols &symbols, Address at,
                ThreadFacts *facts) {
    const int64_t size = table.Get(Vm::THREAD_SIZE);
    if (size < 8 || size > LARGEST_THREAD)
        return false;
    std::vector<char> object(static_cast<size_t>(size));
    if (!memory.ReadFresh(at, object.data(), object.size()))
        return false;
    const auto field = [&](Vm slot, Vm inner = Vm::COUNT) {
        const int64_t outer = table.Get(slot), within = inner == Vm::COUNT ? 0 : table.Get(inner);
        const bool known = outer >= 0 && outer <= LARGEST_THREAD && within >= 0 && within <= LARGEST_THREAD;
        Address value = 0;
        if (known && outer + within + int64_t(sizeof value) <= size)
            memcpy(&value, &object[static_cast<size_t>(outer + within)], sizeof value);
        return value;
    };
    Address vtable = 0;
    memcpy(&vtable, object.data(), sizeof vtable);
    // A node of a list that is gone is freed memory, or something else by now.
    if (symbols.has_symtab && symbols.ClassAt(vtable).find("Thread") == std::string::npos)
        return false;
    *facts = ThreadFacts();
    facts->self = at;
    facts->os_id = memory.FreshAt<int>(table.In(field(Vm::THREAD_OS), Vm::OS_ID));
    facts->state = static_cast<int>(field(Vm::THREAD_STATE));
    facts->anchor_sp = field(Vm::THREAD_ANCHOR, Vm::ANCHOR_SP);
    facts->anchor_pc = field(Vm::THREAD_ANCHOR, Vm::ANCHOR_PC);
    facts->anchor_fp = field(Vm::THREAD_ANCHOR, Vm::ANCHOR_FP);
    facts->stack_base = field(Vm::STACK_BASE);
    facts->stack_size = field(Vm::STACK_SIZE);
    facts->pending_monitor = field(Vm::PENDING_MONITOR);
    facts->waiting_monitor = field(Vm::WAITING_MONITOR);
    return facts->os_id > 0;
}

} // namespace qorctl::outside
