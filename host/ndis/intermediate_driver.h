// A driver between two adapters, which hands the NBLs of the upper one on to the lower one.
#pragma once

#include <map>

#include "host/sched/scheduler.h"
#include "platform/ndis.h"

namespace netsieve::host {

class Stack;

/// An intermediate driver as teams and virtual switches use it: the adapter of `upper` is virtual,
/// and what it is sent goes down through a protocol of `lower` in the very NBLs it came in; what
/// that protocol receives goes up on the virtual adapter. So one NBL crosses the filters of both
/// stacks. While it is in the lower stack (or, received, in the upper one) it is the driver's NBL
/// there, with the driver's handle as its SourceHandle; on the way back it gets the former one.
///
/// Make it while both stacks are quiet, and keep it until all NBLs are home. It takes over what
/// the virtual adapter and the first protocol of `lower` do with NBLs.
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
    void TakeOver(PNET_BUFFER_LIST chain, Stack& from, Stack& to, bool send);
    void HandBack(PNET_BUFFER_LIST chain);

    Stack& upper_;
    Stack& lower_;
    HostMutex mutex_;
    std::map<PNET_BUFFER_LIST, NDIS_HANDLE> sources_;  ///< of the NBLs that are its own now
};

}  // namespace netsieve::host
