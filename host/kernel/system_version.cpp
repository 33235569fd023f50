// The version that the system says it has.

#include "host/machine.h"

using namespace netsieve::host;

extern "C" BOOLEAN NTAPI PsGetVersion(PULONG MajorVersion,
                                      PULONG MinorVersion,
                                      PULONG BuildNumber,
                                      PUNICODE_STRING CSDVersion) {
    Machine& machine = Machine::Current();
    machine.verifier().DemandPassive("PsGetVersion");
    machine.EnterCall("PsGetVersion");
    if (MajorVersion != nullptr) {
        *MajorVersion = machine.options().osMajorVersion;
    }
    if (MinorVersion != nullptr) {
        *MinorVersion = 0;
    }
    if (BuildNumber != nullptr) {
        *BuildNumber = 6000;
    }
    if (CSDVersion != nullptr) {
        CSDVersion->Length = 0;
    }
    return FALSE;
}
