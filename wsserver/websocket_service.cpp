#include "wsserver/websocket_service.h"
