#include "wsserver/zenk_dvbCss.h"

// The wall-clock server only holds the dispatcher.
class ZenkCSSEventDispatcher {};

ZenkCSSEventDispatcher* sharedEventDispatcher();
ZenkCSSEventDispatcher* sharedEventDispatcher() {
    static ZenkCSSEventDispatcher dispatcher;
    return &dispatcher;
}
