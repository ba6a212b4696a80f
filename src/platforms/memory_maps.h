// The process's own memory mappings, as the system lists them.
#pragma once

#include <cstdint>

struct QorMapping {
    uint64_t start, end;
    bool readable, writable, executable,
        shared;           // shared: what is written is seen by whoever maps the same memory
    char name[4096 + 16]; // the file's, cut; empty for none
};

// Calls `visit` for each mapping until it answers false. False when the list can't be read.
bool QorVisitMappings(bool (*visit)(const QorMapping &mapping, void *data), void *data);

// The mapping that holds `address`. False when none does, or the list can't be read.
bool QorFindMapping(uint64_t address, QorMapping *found);
