#include "root_lines.h"

#include "qorutil/vm_heap.h"

#include <cstring>

QorDumpFile logfile = {-1, 0, 0, 0, 0, nullptr, 0};
char prepend_str[PREPEND_SIZE];

namespace {

uint64_t recordBase;

} // namespace

void INLINE_DUMP_OOP_DETAILS(QorDumpFile *dump, uint64_t oop, int32_t type, char letter, const char *name) {
    if (!dump || !valid_oop(oop))
        return;
    char *p = QorPutChar(QorPutChar(QorDumpReserve(dump, DUMP_LEAST_BUFFER), 'S'), letter);
    p = QorPutChar(QorPutHex(p, oop - QorRecordBase()), '|');
    QorDumpCommit(dump, p);
    QorDumpText(dump, prepend_str, static_cast<int64_t>(strlen(prepend_str)));
    QorDumpText(dump, name, static_cast<int64_t>(strlen(name)));
    p = QorPutChar(QorDumpReserve(dump, DUMP_LEAST_BUFFER), '|');
    QorDumpCommit(dump, QorPutChar(QorPutSigned(p, type), '\n'));
}

void QorSetRecordBase(uint64_t base) {
    recordBase = base;
}

uint64_t QorRecordBase() {
    return recordBase;
}

char *QorPutDumpAddress(char *p, uint64_t oop) {
    return QorPutHex(p, valid_oop(oop) ? oop - QorRecordBase() : 0);
}
