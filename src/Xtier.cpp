#include "Xtier.h"

void QorListXtierFrame(const QorThreadRecord *, const QorFrameRecord *, QorXtierFlags *) {}

void QorInsertXtierData(char *, int32_t) {}

void QorFreeXtierLists() {}
