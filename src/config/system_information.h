// The export that is not about packets: ITarnHKSystemInformationEx, as the client header declares
// it.
#pragma once

#include "client/exports.h"
