#pragma once

#include "log/zenk_export.h"

enum {
    LOG_TYPE_ENTER = 0,
    LOG_TYPE_LEAVE = 1,
    LOG_TYPE_ERROR = 2,
    LOG_TYPE_INT = 3,
    LOG_TYPE_STRING = 4,
};

extern "C" {

ZENK_API extern char g_modules_info[1025];

ZENK_API void zenk_log_print(int type, const char* module, const char* file, const char* function, int line,
                             const char* name, const void* value);
ZENK_API void zenk_log(const char* module, const char* file, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));
ZENK_API int zenk_log_getLevel(const char* module);
ZENK_API int zenk_log_initialize(int mode);
ZENK_API int zenk_log_finalize(int mode);
ZENK_API int insert_modules_list(const char* modules, int level);
ZENK_API int get_modules_list(char* list);
ZENK_API int clear_modules_list(void);
}
