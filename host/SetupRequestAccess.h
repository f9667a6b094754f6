// The request's options as the host request takes them, for callers inside the project (the
// front door) that set options one by one and leave the rest at the host request's defaults.
#pragma once

#include "host/LMBroadcastHostRequest.h"
#include "lumaro-broadcast-host/BroadcastSetup.h"

namespace lumaro::broadcast {

struct SetupRequestAccess {
    static LMBroadcastHostRequestOptions& options(SetupRequest& request);
};

}  // namespace lumaro::broadcast
