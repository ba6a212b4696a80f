// Objects of java.lang and java.util as they are built for a scene, and their values as text.
#pragma once

#include "simvm.h"

namespace simvm {

using Fields = std::vector<std::pair<std::string, Value>>;

Object *New(const std::string &className, const Fields &fields, char space = 'E');
Object *NewElements(const std::string &signature, const std::vector<Value> &elements, char space = 'E');
// A String that shares its char[] with others: it has `count` of these characters, from `offset` on.
Object *NewPartOf(const std::u16string &chars, int32_t offset, int32_t count);
// A StringBuffer that has room left. Its fields are a super class's.
Object *NewBuffer(const std::string &text);

struct TableEntry {
    Object *key; // a String keeps its hash code from then on
    Value value;
    int32_t bucket = -1; // -1: where its hash code belongs
};
// A Hashtable, a Properties or a HashMap. A bucket's entries are chained in this order; `cyclic`: its last
// one leads back to the first.
Object *NewTable(const std::string &className, int32_t buckets, const std::vector<TableEntry> &entries,
                 bool cyclic = false);

// Of a String, a char[] or a StringBuffer, from the description.
std::u16string CharsOf(const Object *text);

} // namespace simvm
