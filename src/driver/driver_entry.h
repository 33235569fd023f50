// Bringing the driver up and taking it down.
#pragma once

#include "platform/kernel.h"

// Registers the filter driver and creates the device object that work items are allocated against.
// A failure of either undoes what was done and is returned. `RegistryPath` is not read.
// PASSIVE_LEVEL.
extern "C" NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

// Tells the hook filters that are still registered, deletes the device object and deregisters the
// filter driver, during which NDIS pauses and detaches every module. Skips what is not there, so it
// also undoes a start that failed half way. PASSIVE_LEVEL.
VOID NTAPI FilterDriverUnload(PDRIVER_OBJECT DriverObject);
