#include "log/zenk_log.h"
