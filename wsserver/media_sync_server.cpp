#include "wsserver/media_sync_server.h"
