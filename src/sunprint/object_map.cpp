#include "object_map.h"

#include "fields.h"

#include "map_steps.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"

#include <cstdlib>
#include <cstring>

namespace {

constexpr int32_t MAX_ENTRIES = 10000;    // looked at in one array, its chains included
constexpr int32_t MAX_ELEMENTS = 1000000; // of one array, most of a large table's are null
constexpr int32_t STEP_SIZE = 256;        // a signature
constexpr char HASH_WORD[] = "Hash";
constexpr char OBJECT_SIGNATURE[] = "Ljava/lang/Object;";
constexpr char STRING_CLASS[] = "java/lang/String";
constexpr char ENTRIES_SIGNATURE[] = "[Ljava/util/Hashtable$Entry;";

// A step, cut into its parts.
struct Step {
    const char *name, *signature;
    const char *condition; // "" for none
};

// What a condition asks for.
enum Condition { NO_CONDITION, FIRST_ENTRY, KEY_HASH, CLASS_NAME };

bool CutStep(char *text, Step *step) {
    char *const comma = strchr(text, ',');
    if (!comma) {
        QORLOG(LOG_TRACE, "Qor Agent Error: Not got expected seperator %s ", text);
        return false;
    }
    *comma = 0;
    char *const second = strchr(comma + 1, ',');
    if (second)
        *second = 0;
    *step = {text, comma + 1, second ? second + 1 : ""};
    return *step->name && *step->signature;
}

bool HoldsHash(const char *signature) {
    return strstr(signature, HASH_WORD) != nullptr;
}

Condition ConditionOf(const Step &step, bool isHash) {
    const char *const text = step.condition;
    if (*text == 0)
        return NO_CONDITION;
    if (!isHash || text[strspn(text, "0123456789")] != 0)
        return CLASS_NAME;
    return strcmp(text, "0") == 0 ? FIRST_ENTRY : KEY_HASH;
}

uint64_t Follow(const Step &step, uint64_t object) {
    return QorFieldOf(object, step.name, step.signature);
}

// Each element of an array, and of a hash table's array the chain that it is the head of. `look` returns
// false to end it.
template <typename Look>
void ForEachEntry(uint64_t array, const char *signature, Look look) {
    if (!QorIsOfType(array, TYPE_OBJ_ARRAY))
        return;
    const char *const next = HoldsHash(signature) ? signature + 1 : nullptr; // without its "["
    const int32_t length = QorInt32At(array + ARRAY_LENGTH);
    int32_t entries = 0;
    for (int32_t i = 0; i < length && i < MAX_ELEMENTS; i++) {
        const uint64_t place = array + ARRAY_ELEMENTS + static_cast<uint64_t>(i) * VM_WORD_SIZE;
        if (!is_in_heap(place)) // the length is torn
            return;
        uint64_t entry = QorWordAt(place);
        while (entry) {
            if (entries++ == MAX_ENTRIES || !look(entry))
                return;
            entry = next ? QorFieldOf(entry, "next", next) : 0;
        }
    }
}

bool HasKeyHash(uint64_t entry, int32_t hash) {
    const uint64_t key = QorFieldOf(entry, "key", OBJECT_SIGNATURE);
    return key && static_cast<int32_t>(QorFieldOf(key, "hash", "I")) == hash;
}

// The steps of one path, on the way.
struct Walk {
    Step steps[OBJECT_MAP_STEPS];
    int32_t count, at;
};

// What one element leads to by the present step, 0 for nothing.
uint64_t LookAt(uint64_t entry, const Walk &walk, Condition condition) {
    const Step &step = walk.steps[walk.at];
    switch (condition) {
    case KEY_HASH:
        return HasKeyHash(entry, atoi(step.condition)) ? Follow(step, entry) : 0;
    case FIRST_ENTRY: {
        const uint64_t value = QorFieldOf(entry, "value", OBJECT_SIGNATURE);
        if (value == 0 || walk.at + 1 == walk.count)
            return value;
        return Follow(walk.steps[walk.at + 1], value);
    }
    default: {
        const uint64_t found = Follow(step, entry);
        return condition == CLASS_NAME && !QorIsInstanceOf(found, step.condition) ? 0 : found;
    }
    }
}

// The step on each element of an array. It moves past the step that it has used up as well.
uint64_t GoThroughArray(uint64_t array, Walk *walk) {
    const char *const signature = walk->steps[walk->at - 1].signature;
    const Condition condition = ConditionOf(walk->steps[walk->at], HoldsHash(signature));
    uint64_t found = 0;
    ForEachEntry(array, signature, [&](uint64_t entry) {
        found = LookAt(entry, *walk, condition);
        return found == 0;
    });
    if (condition == FIRST_ENTRY && walk->at + 1 < walk->count)
        walk->at++;
    return found;
}

bool CutPath(char *path, Walk *walk) {
    char *texts[OBJECT_MAP_STEPS];
    walk->count = QorSplitObjectMap(path, texts);
    walk->at = 0;
    for (int32_t i = 0; i < walk->count; i++)
        if (!CutStep(texts[i], &walk->steps[i]))
            return false;
    return walk->count > 0;
}

// The object that an address is, or that the handle there holds; 0 for neither.
uint64_t StartOf(uint64_t address) {
    if (address == 0) {
        QORLOG(LOG_NOTE, "Qor Agent: Object passed is NULL");
        return 0;
    }
    const uint64_t object = valid_oop(address) ? address : QorWordAt(address);
    if (valid_oop(object))
        return object;
    QORLOG(LOG_NOTE, "Qor Agent: Object passed is invalid");
    return 0;
}

// What a look-up of a key has met so far.
struct Search {
    const char *key;
    uint64_t value;
    bool isFound, hasForeignKey;
};

bool LookUp(uint64_t entry, Search *search) {
    char text[VM_TEXT_SIZE];
    const uint64_t key = QorFieldOf(entry, "key", OBJECT_SIGNATURE);
    search->hasForeignKey = !QorIsInstanceOf(key, STRING_CLASS);
    search->isFound =
        !search->hasForeignKey && QorStringText(text, sizeof text, key) && strcmp(text, search->key) == 0;
    if (search->isFound)
        search->value = QorFieldOf(entry, "value", OBJECT_SIGNATURE);
    return !search->isFound && !search->hasForeignKey;
}

uint64_t NoValue(const char *why) {
    QORLOG(LOG_TRACE, "%s", why);
    return 0;
}

} // namespace

uint64_t ParseObjectMap(const char *path, uint64_t object) {
    char copy[OBJECT_MAP_SIZE];
    uint64_t found = StartOf(object);
    if (found == 0 || !path || strlen(path) >= sizeof copy)
        return 0;
    QorStrncpy(copy, path, sizeof copy, sizeof copy);
    Walk walk;
    if (!CutPath(copy, &walk))
        return 0;
    for (; walk.at < walk.count && found; walk.at++) {
        const bool isArray = walk.at > 0 && walk.steps[walk.at - 1].signature[0] == '[';
        found = isArray ? GoThroughArray(found, &walk) : Follow(walk.steps[walk.at], found);
    }
    return found;
}

uint64_t ParseObject(const char *step, uint64_t object) {
    char copy[STEP_SIZE];
    Step parts;
    if (!step || QorStrncpy(copy, step, sizeof copy, sizeof copy) < 0 || !CutStep(copy, &parts))
        return 0;
    return Follow(parts, object);
}

uint64_t search_hash_table(uint64_t table, const char *key) {
    if (table == 0 || !key)
        return NoValue(" search_hash_table: Null argument passed.\n");
    if (*key == 0)
        return NoValue(" search_hash_table Error: Key cannot be NULL.\n");
    const uint64_t place = find_object_field(table, 0, "table", ENTRIES_SIGNATURE);
    if (place == 0)
        return NoValue(" search_hash_table Error: Hash table not found.\n");
    const uint64_t array = QorWordAt(place);
    if (array == 0)
        return NoValue(" search_hash_table Error: Hash table is NULL.\n");
    Search search = {key, 0, false, false};
    ForEachEntry(array, ENTRIES_SIGNATURE, [&search](uint64_t entry) { return LookUp(entry, &search); });
    if (search.hasForeignKey)
        return NoValue(" search_hash_table : Only String keys are supported.\n");
    return search.isFound ? search.value : NoValue(" search_hash_table Error: Key not found.\n");
}
