#include "wsserver/wall_clock.h"
