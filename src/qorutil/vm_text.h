// Texts of the JVM, read by address: symbols (names of classes, methods, files) and Java strings.
//
// What is read may be freed or moved meanwhile, so that any bytes can come; what goes out is bounded,
// terminated, well-formed UTF-8 or modified UTF-8, and fit for a record: separators become blanks. A text
// that is too long is cut before a character.
//
// Worker, or the initialisation thread; never while a thread is held, as a cut text is logged.
#pragma once

#include "reply/utf16_text.h"

#include <cstdint>

enum : int32_t {
    VM_BIG_TEXT_CHARS = 4095,
    VM_SYMBOL_SIZE = VM_TEXT_CHARS + 1, // room for any symbol
    VM_BIG_TEXT_SIZE = 3 * VM_BIG_TEXT_CHARS + 1,
};

// A symbol's text into `size` bytes, at most VM_TEXT_CHARS of it. Returns `dst`, "" for the symbol 0; null,
// with "" in `dst`, for anything but a symbol.
char *sym2str(char *dst, int32_t size, uint64_t symbol);

// `count` characters from `offset` on of the char array whose elements begin at `chars`, at most
// VM_TEXT_CHARS of them. Always `dst`; "" when the range isn't in the array or can't be read. A lone half of
// a surrogate pair becomes "?".
char *oop2str(char *dst, int32_t size, uint64_t chars, int32_t count, int32_t offset);

// The same for up to VM_BIG_TEXT_CHARS.
char *oop2str_big(char *dst, int32_t size, uint64_t chars, int32_t count, int32_t offset); // nothing calls it

// A java.lang.String's text, by oop2str. Null, with "" in `dst`, for what isn't an object or has no array of
// characters. That the object is a String is the caller's knowledge.
char *QorStringText(char *dst, int32_t size, uint64_t string);

// The whole of a char array of up to VM_TEXT_CHARS, such as a thread's name. Null, with "" in `dst`, for what
// isn't an array or is longer.
char *QorCharArrayText(char *dst, int32_t size, uint64_t array);

// The text of an object that is one: a java.lang.String, or a char array. Null, with "" in `dst`, for any
// other object and for what isn't one.
char *QorVmText(char *dst, int32_t size, uint64_t object);

// Whether a symbol has exactly this text. False for what isn't a symbol.
bool QorSymbolIs(uint64_t symbol, const char *text);
