#include "object_print.h"

#include "fields.h"
#include "frame_names.h"
#include "signature.h"

#include "qorrequest.h"
#include "reply/qorformat.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_text.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr char NULL_OBJECT[] = "Null Oop", INVALID_OBJECT[] = "Invalid Object";
constexpr char NULL_ARRAY[] = "This Array Object is NULL";
constexpr char NO_FIELDS[] = "No Fields exist";
constexpr char NO_TABLE[] = "No Information available for this Object";
constexpr char VIEW_LABEL[] = "View Object", VIEW_ARRAY_LABEL[] = "View Array Contents";
constexpr char STATIC_WORD[] = "static ";

constexpr char STRING_TYPE[] = "Ljava/lang/String;", BUFFER_TYPE[] = "Ljava/lang/StringBuffer;";
constexpr char BUFFER_CLASS[] = "java/lang/StringBuffer";
constexpr char CHARS_TYPE[] = "[C", STRINGS_TYPE[] = "[Ljava/lang/String;";

constexpr int32_t END_ROOM = 2;      // kept for the end of the last section
constexpr int32_t LOOK_EVERY = 1000; // elements

// A view on its way into the reply.
struct View {
    QorText *out;
    uint64_t object; // 0: statics only
    int32_t rows;
    bool full;
};

void AppendSection(View *view, const char *text) {
    QorTextAppend(view->out, text);
    QorTextAppendChar(view->out, SECTION_END);
}

void AppendTitle(View *view, const char *title) {
    QorTextAppend(view->out, title);
    QorTextAppendChar(view->out, RECORD_END);
}

// The end of a section of rows, for which room is kept.
void EndRows(View *view) {
    view->out->size += END_ROOM;
    QorTextAppendChar(view->out, SECTION_END);
    view->out->size -= END_ROOM;
}

// Ends what began at `start`; it goes in whole, or the view ends before it.
bool EndWhole(View *view, int32_t start, char mark) {
    QorTextAppendChar(view->out, mark);
    if (view->out->refused) {
        QorTextCut(view->out, start);
        view->full = qorReplyIsCut = true;
    }
    return !view->full;
}

// "java.lang.String Array D-1 Array D-2" for a field's signature.
void AppendType(QorText *out, const char *signature) {
    const auto dimensions = static_cast<int32_t>(strspn(signature, "["));
    char element[TYPE_NAME_SIZE];
    QorTypeName(signature + dimensions, element, sizeof element);
    QorTextAppend(out, element[0] ? element : null_str);
    for (int32_t i = 1; i <= dimensions; i++) {
        QorTextAppend(out, " Array D-");
        QorTextAppendNumber(out, i);
    }
}

uint64_t NameOf(uint64_t klass) {
    return QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME]);
}

// A class by its own name, which for arrays is a signature.
void AppendClassName(QorText *out, uint64_t klass) {
    char name[VM_SYMBOL_SIZE];
    sym2str(name, sizeof name, NameOf(klass));
    if (name[0] == '[') {
        AppendType(out, name);
        return;
    }
    strip_slash(name);
    QorTextAppend(out, name[0] ? name : null_str);
}

// ---- rows

// What a row is of; `type` is a signature.
struct Item {
    const char *type, *name;
    bool isStatic;
};

void AppendTypeAndName(QorText *out, const Item &item) {
    if (item.isStatic)
        QorTextAppend(out, STATIC_WORD);
    AppendType(out, item.type);
    QorTextAppendChar(out, FIELD_SEP);
    QorAppendField(out, item.name);
}

// ^ ^ type name, for a value that follows.
void BeginValueRow(QorText *out, const Item &item) {
    QorAppendField(out, null_str);
    QorAppendField(out, null_str);
    AppendTypeAndName(out, item);
}

void AppendTextRow(View *view, const Item &item, const char *text) {
    const int32_t start = view->out->length;
    BeginValueRow(view->out, item);
    QorTextAppend(view->out, text);
    EndWhole(view, start, RECORD_END);
}

void AppendNumberRow(View *view, const Item &item, uint64_t address) {
    const int32_t start = view->out->length;
    int64_t value = 0;
    BeginValueRow(view->out, item);
    if (QorReadField(address, item.type[0], &value))
        QorAppendValue(view->out, item.type[0], static_cast<uint64_t>(value));
    else
        QorTextAppend(view->out, INVALID_OBJECT);
    EndWhole(view, start, RECORD_END);
}

void AppendAddress(QorText *out, uint64_t address, QorViewFlag flag) {
    char text[48];
    const int32_t length = snprintf(text, sizeof text, "%lx%c%d%c", address, FIELD_SEP, flag, FIELD_SEP);
    QorTextAppend(out, text, length);
}

void AppendReferenceRow(View *view, const Item &item, uint64_t object) {
    const int32_t start = view->out->length;
    const QorViewFlag flag = QorViewFlagOf(object);
    AppendAddress(view->out, object, flag);
    AppendTypeAndName(view->out, item);
    QorTextAppend(view->out, flag == VIEW_OBJECT ? VIEW_LABEL : VIEW_ARRAY_LABEL);
    EndWhole(view, start, RECORD_END);
}

bool IsShownAsText(const char *type) {
    return strcmp(type, STRING_TYPE) == 0 || strcmp(type, BUFFER_TYPE) == 0 || strcmp(type, CHARS_TYPE) == 0;
}

void AppendObjectRow(View *view, const Item &item, uint64_t object) {
    char text[VM_TEXT_SIZE];
    if (object == 0)
        AppendTextRow(view, item, NULL_OBJECT);
    else if (!valid_oop(object))
        AppendTextRow(view, item, INVALID_OBJECT);
    else if (IsShownAsText(item.type) && QorObjectText(text, sizeof text, object))
        AppendTextRow(view, item, text);
    else
        AppendReferenceRow(view, item, object);
}

// ---- fields

// A field as a row; those whose names can't be read are left out.
bool AppendField(const QorVmField &field, void *context) {
    auto *view = static_cast<View *>(context);
    if (view->object == 0 && !field.isStatic)
        return true;
    char name[VM_SYMBOL_SIZE], type[VM_SYMBOL_SIZE];
    sym2str(name, sizeof name, field.name);
    sym2str(type, sizeof type, field.signature);
    if (!name[0] || !type[0])
        return true;
    const Item item = {type, name, field.isStatic != 0};
    const uint64_t place =
        (field.isStatic ? field.klass : view->object) + static_cast<uint64_t>(field.offset);
    const bool isReference = type[0] == 'L' || type[0] == '[';
    if (view->rows++ == 0)
        AppendTitle(view, TITLE_OBJECT);
    if (isReference)
        AppendObjectRow(view, item, QorWordAt(place));
    else
        AppendNumberRow(view, item, place);
    return !view->full;
}

void AppendFields(View *view, uint64_t klass) {
    view->rows = 0;
    const bool isTable = QorVisitFields(klass, AppendField, view);
    if (view->rows > 0)
        EndRows(view);
    else
        AppendSection(view, isTable ? NO_FIELDS : NO_TABLE);
}

void AppendHead(View *view, uint64_t klass) {
    AppendTitle(view, TITLE_MESSAGE);
    QorTextAppend(view->out, LABEL_OBJECT_NAME);
    QorTextAppendChar(view->out, ' ');
    AppendClassName(view->out, klass);
    QorTextAppendChar(view->out, SECTION_END);
}

// The class's fields, and those of the classes above it.
void PrintKlass(View *view, uint64_t klass) {
    AppendHead(view, klass);
    AppendFields(view, klass);
    uint64_t above = QorSuperKlass(klass);
    for (int32_t i = 1; above && i < MAX_SUPER_KLASSES && !view->full; i++, above = QorSuperKlass(above)) {
        const int32_t start = view->out->length;
        AppendTitle(view, TITLE_PARENT);
        AppendClassName(view->out, above);
        if (EndWhole(view, start, SECTION_END))
            AppendFields(view, above);
    }
}

// ---- arrays

struct Array {
    uint64_t elements;
    char type[VM_SYMBOL_SIZE]; // an element's signature
    bool ofStrings;
};

void AppendStringElement(View *view, int32_t index, uint64_t string) {
    char text[VM_TEXT_SIZE], label[64];
    if (!QorObjectText(text, sizeof text, string))
        return;
    const int32_t start = view->out->length;
    snprintf(label, sizeof label, "String Array Element[%d] : ", index);
    QorTextAppend(view->out, label);
    QorTextAppend(view->out, text);
    EndWhole(view, start, SECTION_END);
}

void AppendObjectElement(View *view, const char *name, uint64_t object) {
    if (!valid_oop(object))
        return;
    const int32_t start = view->out->length;
    const QorViewFlag flag = QorViewFlagOf(object);
    AppendAddress(view->out, object, flag);
    AppendClassName(view->out, QorKlassOf(object));
    QorTextAppendChar(view->out, FIELD_SEP);
    QorAppendField(view->out, name);
    QorTextAppend(view->out, flag == VIEW_OBJECT ? VIEW_LABEL : VIEW_ARRAY_LABEL);
    EndWhole(view, start, RECORD_END);
}

// False past the heap's end: the array's length is torn.
bool AppendElement(View *view, const Array &array, int32_t index) {
    const int32_t width = QorWidthOf(array.type[0]); // 0 for references
    const uint64_t size = width ? static_cast<uint64_t>(width) : VM_WORD_SIZE;
    const uint64_t place = array.elements + static_cast<uint64_t>(index) * size;
    if (!is_in_heap(place & ~(VM_WORD_SIZE - 1)))
        return false;
    char name[64];
    snprintf(name, sizeof name, "Array Element [%d]", index);
    if (width) {
        AppendNumberRow(view, {array.type, name, false}, place);
        return true;
    }
    const uint64_t object = QorWordAt(place);
    if (object && array.ofStrings)
        AppendStringElement(view, index, object);
    else if (object)
        AppendObjectElement(view, name, object);
    return true;
}

// One text for an array of characters; else the elements, but for those that are null.
void PrintArray(View *view, uint64_t klass) {
    AppendHead(view, klass);
    AppendTitle(view, TITLE_OBJECT);
    char signature[VM_SYMBOL_SIZE], text[VM_TEXT_SIZE];
    sym2str(signature, sizeof signature, NameOf(klass));
    if (QorVmText(text, sizeof text, view->object)) {
        AppendTextRow(view, {signature, null_str, false}, text);
        EndRows(view);
        return;
    }
    Array array = {view->object + ARRAY_ELEMENTS, "", strcmp(signature, STRINGS_TYPE) == 0};
    if (signature[0] == '[')
        memcpy(array.type, signature + 1, sizeof signature - 1);
    const int32_t start = view->out->length, length = QorInt32At(view->object + ARRAY_LENGTH);
    for (int32_t i = 0; i < length && !view->full && !(i % LOOK_EVERY == 0 && qorLeave); i++)
        if (!AppendElement(view, array, i))
            break;
    if (!array.ofStrings || view->out->length == start)
        EndRows(view);
}

// ---- views

bool IsKlassOfJava(uint64_t address) {
    const VmType type = valid_oop(address) && valid_klass(address) ? QorTypeOf(address) : TYPE_NONE;
    return type >= TYPE_KLASS_KLASS && type <= TYPE_TYPE_ARRAY_KLASS_KLASS;
}

bool IsArray(uint64_t object) {
    const VmType type = QorTypeOf(object);
    return type == TYPE_TYPE_ARRAY || type == TYPE_OBJ_ARRAY;
}

void PrintOnce(View *view, uint64_t address, int32_t flag) {
    const bool isClass = flag >= VIEW_CLASS;
    if (address == 0)
        AppendSection(view, flag == VIEW_ARRAY || flag == VIEW_STRING_ARRAY ? NULL_ARRAY : NULL_OBJECT);
    else if (isClass ? !IsKlassOfJava(address) : !valid_oop(address))
        AppendSection(view, INVALID_OBJECT);
    else if (isClass)
        PrintKlass(view, address);
    else {
        view->object = address;
        if (IsArray(address))
            PrintArray(view, QorKlassOf(address));
        else
            PrintKlass(view, QorKlassOf(address));
    }
}

// False when objects may have moved meanwhile.
bool PrintStill(View *view, uint64_t address, int32_t flag) {
    const uint32_t collections = QorCollectionCount();
    if (QorIsCollecting())
        return false;
    QorForgetPages();
    QorNoteSpaces();
    PrintOnce(view, address, flag);
    return !QorIsCollecting() && QorCollectionCount() == collections;
}

} // namespace

void PrintObject(uint64_t address, int32_t flag, QorText *reply) {
    refresh_heap = 1;
    const int32_t start = reply->length;
    const bool wasCut = qorReplyIsCut;
    for (int32_t tries = 0; tries < 2; tries++) {
        View view = {reply, 0, 0, false};
        reply->size -= END_ROOM;
        const bool still = PrintStill(&view, address, flag);
        reply->size += END_ROOM;
        if (still)
            return;
        QorTextCut(reply, start);
        qorReplyIsCut = wasCut;
    }
    View view = {reply, 0, 0, false};
    AppendSection(&view, COLLECTOR_RUNNING);
}

QorViewFlag QorViewFlagOf(uint64_t object) {
    if (!valid_oop(object) || !IsArray(object))
        return VIEW_OBJECT;
    return QorSymbolIs(NameOf(QorKlassOf(object)), STRINGS_TYPE) ? VIEW_STRING_ARRAY : VIEW_ARRAY;
}

char *QorObjectText(char *dst, int32_t size, uint64_t object) {
    if (!QorIsInstanceOf(object, BUFFER_CLASS))
        return QorVmText(dst, size, object);
    dst[0] = 0;
    const uint64_t chars = QorFieldOf(object, "value", CHARS_TYPE);
    const auto count = static_cast<int32_t>(QorFieldOf(object, "count", "I"));
    return QorIsOfType(chars, TYPE_TYPE_ARRAY) ? oop2str(dst, size, chars + ARRAY_ELEMENTS, count, 0)
                                               : nullptr;
}
