#pragma once

struct ZenkDispatcherInfo;

namespace zenk {

/// Hands an event to its server, which must exist, and so to the host's callback. No exception leaves it.
void deliver(ZenkDispatcherInfo& record);

}  // namespace zenk
