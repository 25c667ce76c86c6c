#pragma once

#include "log/zenk_export.h"

/// @file
/// The diagnostic log: trace lines on standard output, with a level per module that an outside process can change
/// while the library runs.
///
/// A module is a short name that the caller passes ("PLUGIN" for everything inside the library). As long as the module
/// table does not hold it, only its `LOG_TYPE_ERROR` lines are printed; once it is stored with level 1, all its lines.
///
/// All functions here may be called from any thread, but where one says otherwise, and none lets an exception out. Log
/// calls keep `errno`, allocate nothing, never wait for a change of the table, and write each line with a single call
/// on `stdout`, without a flush: its buffering decides when a line leaves, and only a full buffer of a slow output can
/// block them. They are not for signal handlers. In a forked child log calls work at once, under the child's own
/// process and thread id; the table is the child's own copy from then on.

/// What a trace line tells; the `type` of zenk_log_print.
enum {
    LOG_TYPE_ENTER = 0,   ///< a function was entered
    LOG_TYPE_LEAVE = 1,   ///< a function is left on its normal way
    LOG_TYPE_ERROR = 2,   ///< a function met a failure at this line
    LOG_TYPE_INT = 3,     ///< a named integer
    LOG_TYPE_STRING = 4,  ///< a named text
};

#ifdef __cplusplus
extern "C" {
#endif

/// The last command datagram of the control channel as it came: 1024 bytes of text field, then the level byte, zero
/// behind the end of a shorter one. All zero before the first command.
/// Written by the log control thread alone and without a lock; a reader on another thread may see a mix of two
/// commands, so look at it in a debugger or a core file only.
ZENK_API extern char g_modules_info[1025];

/// Writes one trace line of fixed shape, if the module's level lets it through. The line begins with the local time,
/// the seconds since the epoch, the process id, the kernel's thread id and the level; it is green, an error line red.
/// The colour is reset behind the newline, so the reset stands at the beginning of the next line.
///
/// Level 2 prints all five types, level 1 `LOG_TYPE_ERROR` only, level 0 nothing (see zenk_log_getLevel). Types below 0
/// and 5 print nothing; a type above 5 prints "log type set err, out of max enum value", whatever the level.
/// The time is that of the process's time zone; a host that changes it calls `tzset`, here as elsewhere.
///
/// @param type      one of `LOG_TYPE_*`
/// @param module    zero-terminated; null counts as a module that is not in the table
/// @param file      path of the source file, zero-terminated; what follows its last "/" is printed
/// @param function  name of the calling function, zero-terminated
/// @param line      source line
/// @param name      name of the traced value, zero-terminated; used by `LOG_TYPE_INT` and `LOG_TYPE_STRING` only
/// @param value     for `LOG_TYPE_INT` a pointer to an int, read only if the line is printed; for `LOG_TYPE_STRING` the
///                  zero-terminated text, of any length; otherwise unused
/// A null `file`, `function`, `name` or `value` of a printed line is printed as "(null)". Nothing is kept.
/// A failed write is ignored.
ZENK_API void zenk_log_print(int type, const char* module, const char* file, const char* function, int line,
                             const char* name, const void* value);

/// Writes free text in the manner of `printf`, at level 2 only, behind the same beginning as zenk_log_print but without
/// colour. No newline is added: end `format` with one.
///
/// @param module, file, function, line  as in zenk_log_print
/// @param format  zero-terminated; null is taken as the text "(null)". It is formatted at every level, so its arguments
///                must be valid even if nothing is printed. A text over 2047 bytes is cut.
/// A failed write is ignored.
ZENK_API void zenk_log(const char* module, const char* file, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 5, 6)));

/// The level of a module. Exact, case-sensitive comparison; lock-free.
///
/// | module                           | result | printed           |
/// |----------------------------------|--------|-------------------|
/// | stored with level 1              | 2      | everything        |
/// | stored with level 2 to 255       | 1      | error lines only  |
/// | not in the table, or null        | 1      | error lines only  |
///
/// A stored level of 0 would give 0 (nothing is printed), but level 0 means removal in every operation.
ZENK_API int zenk_log_getLevel(const char* module);

/// Starts the control channel: a detached thread that reports the table's module names once a second in a datagram to
/// 127.0.0.1, UDP port 54321, and takes at most one command a second from whoever answers. Reports go out whether or
/// not anybody listens. The thread blocks all signals, and runs until the process ends: the library must stay loaded.
///
/// Report: the names in byte order, joined by "|", 0 to 659 bytes, no terminator. Command: 1025 bytes, a
/// zero-terminated list of names joined by "|" (or the word "__CLIEAR_LOG_MODULES__", which empties the table) in a
/// field of 1024 bytes, then the level as one unsigned byte, 0 to remove the names. A missing level byte counts as 0.
///
/// @param mode  0 does nothing; 1 starts the thread
/// @return 0 for both, also if the thread cannot be started or runs already (no second one is started; a forked child
///         may start its own); -1 for any other mode, which starts nothing
ZENK_API int zenk_log_initialize(int mode);

/// Counterpart of zenk_log_initialize, without effect: the control thread goes on and the table stays.
/// @return 0 for mode 0 and 1, -1 for any other
ZENK_API int zenk_log_finalize(int mode);

/// Stores a level for each module of a list, or removes them. Log calls see the change of the whole list at once.
/// May wait for another thread that changes or lists the table.
///
/// A name over 32 bytes is refused with a message on standard output and the rest of the list goes on. With 20 modules
/// in the table every level but 0 is refused with a message, even for a name that is in it, and so is all that follows
/// in the list. If memory runs out the same happens with a message of its own.
///
/// @param modules  names joined by "|", zero-terminated, of any length; empty names are skipped; copied
/// @param level    0 removes the names that are there; any other value is stored (1: print everything)
/// @return -1 for null `modules`, otherwise 0, whatever became of the names
ZENK_API int insert_modules_list(const char* modules, int level);

/// Lists the module names in byte order, joined by "|". May wait for another thread that changes the table.
/// @param list  room for 1025 bytes (a full table takes at most 660); null gives the count only
/// @return the number of modules; 0 leaves `list` unchanged
ZENK_API int get_modules_list(char* list);

/// Empties the table, so that every module prints its error lines only. May wait as insert_modules_list does.
/// @return 0
ZENK_API int clear_modules_list(void);

#ifdef __cplusplus
}
#endif
