// Types and values as the direct road's records show them. Any thread.
#pragma once

#include "qorutil/vm_text.h"

#include "reply/qortext.h"

#include <cstdint>

enum : int32_t { MAX_ARGUMENTS = 255, TYPE_NAME_SIZE = VM_SYMBOL_SIZE + 64 };

// The name of the type that `signature` begins with, cut to `size` bytes: "Integer", "java.lang.String",
// "Array java.lang.String". Returns where the signature goes on; null, with "" in `out`, for what isn't a
// type.
const char *QorTypeName(const char *signature, char *out, int32_t size);

// The arguments of a method, by its signature.
struct QorArgument {
    char code; // first letter of its type's signature
    char type[TYPE_NAME_SIZE];
};

// Steps to the next argument: *at is null at first. False when there are no more, or no signature.
bool meth_sig_parser(const char *signature, const char **at, QorArgument *out);

// Appends a value of a primitive type by its code (Z B C S I J F D), nothing for any other code. Of `bits`
// the low ones count, as many as the type has.
void QorAppendValue(QorText *out, char code, uint64_t bits);
