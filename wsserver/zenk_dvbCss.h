#pragma once

#include <pthread.h>

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "log/zenk_export.h"
#include "wsserver/media_sync_server.h"

// ---------------------------------------------------------------- event dispatcher

// ---------------------------------------------------------------- CSS-CII server

// ---------------------------------------------------------------- CSS-TS server

// ---------------------------------------------------------------- CSS-WC server
