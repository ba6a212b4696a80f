#include "JavaClasses.h"

jclass e2eclass;
jclass jobjclass;
jclass jstringclass;
jclass gbDbUtilClass;
