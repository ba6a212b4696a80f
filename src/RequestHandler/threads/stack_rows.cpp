#include "stack_rows.h"

namespace {

enum : uint32_t { SHAPE_SLOTS = 8192, SHAPE_LIMIT = 6144 };
enum : int32_t { ROW_ARENA_SIZE = 1024 * 1024 };

QorFrameShape shapes[SHAPE_SLOTS]; // open addressing; an entry of another sample is free
uint32_t shapeCount;
uint32_t currentSample;

char rowArena[ROW_ARENA_SIZE]; // rows of the table
int32_t rowArenaUsed;
char looseRow[LONGEST_ROW]; // row of the frame that is in no table
QorFrameShape looseShape;

uint32_t SlotOf(jmethodID method, jlocation location) {
    uint64_t h =
        reinterpret_cast<uint64_t>(method) ^ (static_cast<uint64_t>(location) * 0x9e3779b97f4a7c15ULL);
    h ^= h >> 29;
    h *= 0xbf58476d1ce4e5b9ULL;
    return static_cast<uint32_t>(h >> 40) & (SHAPE_SLOTS - 1);
}

// Formats head and tail of the shape's row: into the arena while there is room, else into the loose row,
// which then has to be formatted each time.
void FormatRow(QorFrameShape *shape) {
    const bool keep = shape != &looseShape && ROW_ARENA_SIZE - rowArenaUsed >= LONGEST_ROW;
    QorText row;
    QorTextStart(&row, keep ? rowArena + rowArenaUsed : looseRow, LONGEST_ROW);
    QorAppendStackRowHead(&row, &shape->frame);
    shape->headLength = row.length;
    QorAppendStackRowTail(&row, shape->frame.methodId);
    shape->tailLength = row.length - shape->headLength;
    shape->rowText = row.text;
    if (keep)
        rowArenaUsed += row.length + 1;
}

} // namespace

void QorStartFrameShapes() {
    shapeCount = 0;
    rowArenaUsed = 0;
    if (++currentSample == 0) { // wrapped: entries of the first samples would look like new ones
        memset(shapes, 0, sizeof shapes);
        currentSample = 1;
    }
}

QorFrameShape *QorFindFrameShape(QorFrameHandle *frameHandle) {
    const jvmtiFrameInfo &at = frameHandle->frames[frameHandle->index];
    uint32_t slot = SlotOf(at.method, at.location);
    for (; shapes[slot].sample == currentSample; slot = (slot + 1) & (SHAPE_SLOTS - 1))
        if (shapes[slot].method == at.method && shapes[slot].location == at.location)
            return &shapes[slot];

    QorFrameRecord frame;
    if (QorReadFrame(frameHandle, FRAME_WITH_FILE_AND_LINE, &frame) != 0)
        return nullptr;
    const bool keep = frame.facts && shapeCount < SHAPE_LIMIT; // the facts outlive the frame
    QorFrameShape *shape = keep ? &shapes[slot] : &looseShape;
    *shape = {at.method, at.location, keep ? currentSample : 0, QorClassifyFrame(&frame), 0, 0,
              nullptr,   frame};
    if (keep)
        ++shapeCount;
    return shape;
}

int32_t QorAppendStackRow(QorText *out, QorFrameShape *shape, const char *threadId, int32_t threadIdLength,
                          int32_t frameIndex) {
    if (!shape->rowText || shape->rowText == looseRow)
        FormatRow(shape);
    char index[24];
    char *const indexEnd = index + sizeof index;
    char *const digits = QorPutDigits(indexEnd, static_cast<uint32_t>(frameIndex));
    const int32_t indexLength = static_cast<int32_t>(indexEnd - digits);
    const int32_t length = shape->headLength + threadIdLength + 1 + indexLength + shape->tailLength;
    if (out->size - out->length <= length)
        return QorTextRefuse(out, shape->rowText, shape->headLength + shape->tailLength);
    char *p = out->text + out->length;
    memcpy(p, shape->rowText, static_cast<size_t>(shape->headLength));
    p += shape->headLength;
    memcpy(p, threadId, static_cast<size_t>(threadIdLength));
    p += threadIdLength;
    *p++ = FIELD_SEP;
    memcpy(p, digits, static_cast<size_t>(indexLength));
    p += indexLength;
    memcpy(p, shape->rowText + shape->headLength, static_cast<size_t>(shape->tailLength));
    out->length += length;
    out->text[out->length] = 0;
    return 1;
}
