#pragma once

#include "log/zenk_log.h"

namespace zenk {

/// The trace of one call of an operation. Built, it writes that the operation was entered; the rest it writes when
/// told, the end too, since some ways out leave no line. File and function are those of the place where it is built, a
/// line is that of the place which tells.
///
///     const zenk::Trace trace;
///     if (uri == nullptr) return trace.fail();
///     trace.leave();
class Trace {
public:
    enum class Line : int {};

    explicit Trace(const char* function = __builtin_FUNCTION(), const char* file = __builtin_FILE(),
                   Line line = Line{__builtin_LINE()})
        : m_function(function), m_file(file), m_line(line) {
        write(LOG_TYPE_ENTER, line);
    }

    /// Where it was built: for code in another file that several operations share.
    Line line() const { return m_line; }

    /// The normal end.
    void leave(Line line = Line{__builtin_LINE()}) const { write(LOG_TYPE_LEAVE, line); }
    /// The same. @return `result`
    template <typename Result>
    Result leave(Result result, Line line = Line{__builtin_LINE()}) const {
        leave(line);
        return result;
    }

    /// A failure, which may be an end.
    void fail(Line line = Line{__builtin_LINE()}) const { write(LOG_TYPE_ERROR, line); }
    /// The same. @return `result`
    template <typename Result>
    Result fail(Result result, Line line = Line{__builtin_LINE()}) const {
        fail(line);
        return result;
    }

    /// @{ A value on the way, with the name that it has in the source.
    void text(const char* name, const char* value, Line line = Line{__builtin_LINE()}) const {
        write(LOG_TYPE_STRING, line, name, value);
    }
    void number(const char* name, int value, Line line = Line{__builtin_LINE()}) const {
        write(LOG_TYPE_INT, line, name, &value);
    }
    /// @}

private:
    void write(int type, Line line, const char* name = nullptr, const void* value = nullptr) const {
        zenk_log_print(type, "PLUGIN", m_file, m_function, static_cast<int>(line), name, value);
    }

    const char* const m_function;
    const char* const m_file;
    const Line m_line;
};

}  // namespace zenk
