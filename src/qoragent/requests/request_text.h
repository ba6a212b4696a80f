// The parts of a request text: fields between bars, the argument field, the flag word, the file of a dump.
//
//   flags|command|reqid|ARG=x,0=first,1=second
//   flags|showmem|256|file name|heap id
//
// Nothing is validated beyond what memory safety needs: numbers wrap, unknown slots are dropped. No function
// reads past the terminator. Worker only, as the results go into the request's globals.
#pragma once

#include <cstdint>

constexpr char FIELD_BAR = '|';
constexpr char DUMP_REQUEST[] = "showmem|256"; // how a dump request begins, after its flags

// The text after the next bar, or null.
char *QorNextField(char *text);
const char *QorNextField(const char *text);

// The number that is at the start of `text` and ends at a bar or the terminator: digit by digit, as value
// times 10 plus character minus '0', wrapping.
uint32_t QorParseNumber(const char *text);

// Spreads an argument field over CONSOLE_ARG_COUNT slots, cutting it in place: slots not named stay as they
// are, and a digit beyond the last slot is dropped with its value. Without an equals sign slot 0 becomes
// null. Returns the number of slots set.
int32_t QorParseArguments(char *field, char **slots);

// Unpacks the flag word into the request's globals.
void QorUnpackFlags(uint32_t flags);

// Reads the file name and the heap id of a dump request into `dumpfile` (after `qorheapdir`) and `heap_id`.
// Without a file name `dumpfile` becomes empty; without an id it is 0.
void QorParseDumpRequest(const char *request);
