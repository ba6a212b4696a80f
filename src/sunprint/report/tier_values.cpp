#include "tier_values.h"

#include "sunprint/fields.h"
#include "sunprint/frame_names.h"

#include "qorStrUtils.h"
#include "qorlog.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <cstdio>
#include <cstring>

namespace {

enum : int32_t { PATH_SIZE = 512 };
constexpr uint64_t MIRROR_KLASS = 16; // in a java.lang.Class

struct Wanted {
    const char *name;
    uint64_t object;
    int64_t value;
    bool found;
};

bool TakeNamed(const QorVmField &field, void *context) {
    auto *wanted = static_cast<Wanted *>(context);
    static char signature[VM_SYMBOL_SIZE];
    if (!QorSymbolIs(field.name, wanted->name) || !sym2str(signature, sizeof signature, field.signature))
        return true;
    const uint64_t base = field.isStatic ? field.klass : wanted->object;
    wanted->found = QorReadField(base + static_cast<uint64_t>(static_cast<int64_t>(field.offset)),
                                 signature[0], &wanted->value);
    return false;
}

// The field of that name, its own class's first.
uint64_t NamedField(uint64_t object, const char *name) {
    Wanted wanted = {name, object, 0, false};
    uint64_t klass = QorKlassOf(object);
    for (int32_t i = 0; i < MAX_SUPER_KLASSES && klass && !wanted.found; i++) {
        QorVisitFields(klass, TakeNamed, &wanted);
        klass = QorSuperKlass(klass);
    }
    return wanted.found ? static_cast<uint64_t>(wanted.value) : 0;
}

bool IsLongerThan(uint64_t string, int32_t most) {
    return QorInt32At(string + STRING_COUNT) > most;
}

} // namespace

uint64_t QorTierValue(const char *path, uint64_t object) {
    char steps[PATH_SIZE];
    char *rest = nullptr;
    if (strlen(path) >= sizeof steps)
        return 0;
    strncpy(steps, path, sizeof steps);
    for (char *step = strtok_r(steps, "|", &rest); step && object; step = strtok_r(nullptr, "|", &rest)) {
        char *const comma = strchr(step, ',');
        if (comma)
            *comma = 0;
        object = comma ? QorFieldOf(object, step, comma + 1) : NamedField(object, step);
    }
    return object;
}

bool QorTierText(const char *path, uint64_t object, char *out, int32_t size) {
    *out = 0;
    const uint64_t string = QorTierValue(path, object);
    if (!string)
        return false;
    if (!valid_oop(string)) {
        QORLOG(LOG_NOTE, "Qor Agent Error:  not a valid object %x", static_cast<uint32_t>(string));
        return false;
    }
    if (QorIsInstanceOf(string, "java/lang/String") && IsLongerThan(string, TIER_NAME_CHARS)) {
        QORLOG(LOG_NOTE, "Qor Agent Error:  String Name is big %d", QorInt32At(string + STRING_COUNT));
        return false;
    }
    static char text[VM_TEXT_SIZE];
    if (!QorVmText(text, sizeof text, string))
        return false;
    snprintf(out, static_cast<size_t>(size), "%s", text);
    if (strlen(text) >= static_cast<size_t>(size))
        QorDropPartialCharacter(out, size - 1);
    return out[0] != 0;
}

bool QorTierClassName(uint64_t object, char *out, int32_t size) {
    if (!QorIsInstanceOf(object, "java/lang/Class"))
        return QorTierText("", object, out, size);
    const uint64_t klass = QorWordAt(object + MIRROR_KLASS);
    *out = 0;
    if (!valid_klass(klass) || !sym2str(out, size, QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME])))
        return false;
    strip_slash(out);
    return out[0] != 0;
}

void QorTierHost(uint64_t address, char *out, int32_t size) {
    const auto number = static_cast<uint32_t>(address);
    *out = 0;
    if (number)
        snprintf(out, static_cast<size_t>(size), "%u.%u.%u.%u", number >> 24, number >> 16 & 255,
                 number >> 8 & 255, number & 255);
}
