#include "Xtier.h"

void QorListXtierFrame(const QorThreadRecord *, const QorFrameRecord *, QorXtierFlags *) {}

void QorInsertXtierData(QorText *) {}

void QorFreeXtierLists() {}
