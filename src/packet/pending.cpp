// No hook can be attached so far, so no request can be pending.
#include "packet/pending.h"

void FlushPendingSends(FILTER_MODULE*) {}

void FlushPendingReceives(FILTER_MODULE*) {}
