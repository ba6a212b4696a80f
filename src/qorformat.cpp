#include "qorformat.h"

char null_str[2] = "^";
