// The loaded classes of a dump: their numbers before the walk, their records after it.
#pragma once

#include "DumpState.h"

// Lists the loaded classes in objTagClass and numbers them: those of primitive arrays from 1, the others from
// 100. Classes beyond the last class number are listed with no tag. 0, or -1 with an empty list. Worker, in
// an open local frame that is to hold the classes.
int32_t tag_all_classes();

// Marks the entry that has this whole tag. The walk hands over bare numbers, which no tag is equal to; so
// every class keeps its record of its own after the walk.
void SetClassVisited(int64_t tag);

// Writes the records of all classes, names of their fields included.
void QorWriteClassRecords();

// Writes the field records of one class, whose number is the high word of `tag`. 0, or -1 for a null class.
int32_t QorDumpFields(jclass klass, int64_t tag);

// Forgets the list.
void QorFreeClassList();
