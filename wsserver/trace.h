#pragma once

#include "log/zenk_log.h"

/// The library's trace lines. Macros, because file, function and line must be those of the traced place.
#define ZENK_TRACE_AT(type, name, value) \
    ::zenk_log_print((type), "PLUGIN", __FILE__, __func__, __LINE__, (name), (value))
#define ZENK_TRACE_ENTER() ZENK_TRACE_AT(LOG_TYPE_ENTER, nullptr, nullptr)
#define ZENK_TRACE_LEAVE() ZENK_TRACE_AT(LOG_TYPE_LEAVE, nullptr, nullptr)
#define ZENK_TRACE_ERROR() ZENK_TRACE_AT(LOG_TYPE_ERROR, nullptr, nullptr)
#define ZENK_TRACE_INT(name, value) ZENK_TRACE_AT(LOG_TYPE_INT, (name), &(value))
#define ZENK_TRACE_STRING(name, text) ZENK_TRACE_AT(LOG_TYPE_STRING, (name), (text))
