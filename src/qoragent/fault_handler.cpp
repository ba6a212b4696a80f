#include "fault_handler.h"

void set_qor_handler() {}

void reset_qor_handler() {}
