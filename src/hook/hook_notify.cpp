// The driver has no registration call so far: HookList is empty, and there is nobody to tell.
#include "hook/hook_notify.h"

void NotifyHooksAdapterAttach(FILTER_MODULE*) {}

void NotifyHooksAdapterDetach(FILTER_MODULE*) {}

void NotifyHooksUnload() {}
