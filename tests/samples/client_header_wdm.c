#include <ddk/wdm.h>
// Behind the kernel's headers, whose types it then takes.
#include "netsieve_hook.h"
