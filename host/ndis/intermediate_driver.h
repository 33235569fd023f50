// An intermediate driver, which passes the NBLs of a virtual adapter to the adapter below it.
#pragma once

#include <map>

#include "host/sched/scheduler.h"
#include "platform/ndis.h"

namespace netsieve::host {

class Stack;

/// An intermediate driver, as in a NIC team or a virtual switch: the adapter of `upper` is virtual.
/// NBLs that are sent to it are sent by the first protocol of `lower`; NBLs that this protocol
/// receives are indicated by the virtual adapter. So one NBL passes the filters of both stacks. In
/// the second stack the NBL is the intermediate driver's own, with its handle as the SourceHandle;
/// before it is completed or returned in the first stack, the former SourceHandle is restored.
///
/// Make it while no NBL is outstanding in either stack, and keep it until none is again. It sets
/// the callbacks and the queue modes of the virtual adapter and of the first protocol of `lower`.
class IntermediateDriver {
  public:
    IntermediateDriver(Stack& upper, Stack& lower);
    IntermediateDriver(const IntermediateDriver&) = delete;
    IntermediateDriver& operator=(const IntermediateDriver&) = delete;

  private:
    void SendThrough(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port);
    void Completed(PNET_BUFFER_LIST chain);
    void IndicateThrough(PNET_BUFFER_LIST chain, NDIS_PORT_NUMBER port, ULONG flags);
    void Returned(PNET_BUFFER_LIST chain);
    void TakeOwnership(PNET_BUFFER_LIST chain, Stack& from, Stack& to, bool send);
    void RestoreOwnership(PNET_BUFFER_LIST chain);

    Stack& upper_;
    Stack& lower_;
    HostMutex mutex_;
    std::map<PNET_BUFFER_LIST, NDIS_HANDLE>
        sources_;  ///< former SourceHandle of each NBL it owns now
};

}  // namespace netsieve::host
