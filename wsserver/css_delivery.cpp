#include "wsserver/css_delivery.h"

#include <cxxabi.h>

#include <utility>

#include "wsserver/zenk_dvbCss.h"

namespace zenk {

namespace {

// The message moves on: nobody else looks at the record any more.
void callServer(ZenkDispatcherInfo& record) {
    ZenkCSSEevntInfo info{record.clientId, std::move(record.message)};
    if (record.event <= CSS_EVENT_CII_CLIENT_LEAVE) {
        static_cast<ZenkCSSCIIServer*>(record.server)->dispatchEventToMS(record.event, &info);
    } else {
        static_cast<ZenkCSSTSServer*>(record.server)->dispatchEventToMS(record.event, &info);
    }
}

}  // namespace

// A callback that throws loses its event only. The unwinding of a thread that ends must go on to the thread's bottom;
// it is no C++ object, so that the compiler's check for null references misfires.
__attribute__((noinline, no_sanitize("null"))) void deliver(ZenkDispatcherInfo& record) {
    try {
        callServer(record);
    } catch (const abi::__forced_unwind&) {
        throw;
    } catch (...) {
    }
}

}  // namespace zenk
