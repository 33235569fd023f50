// The public client header as the driver sees it: with the platform's types of the driver's own
// headers, and with exports that are defined here and not imported.
#pragma once

#include "platform/ndis.h"

#define NETSIEVE_HOOK_API
#include "client/netsieve_hook.h"
