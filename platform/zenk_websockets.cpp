#include "platform/zenk_websockets.h"
