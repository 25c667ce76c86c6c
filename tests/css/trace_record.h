#pragma once

#include <string>

/// The trace calls of one thread, from construction on.
class TraceRecord {
public:
    TraceRecord();
    ~TraceRecord();
    TraceRecord(const TraceRecord&) = delete;
    TraceRecord& operator=(const TraceRecord&) = delete;

    /// What was recorded since the last call: "+function" for entered, "-function" for left, "!function" for an error,
    /// "function:name=text" for a text, each followed by a blank.
    std::string take();
};
