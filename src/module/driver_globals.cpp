#include "module/driver_globals.h"

FILTER_DRIVER_GLOBALS g_DriverGlobals;
