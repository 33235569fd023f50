#include "netsieve_hook.h"
