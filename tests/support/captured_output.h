#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace zenk_test {

/// Collects what goes to standard output while it lives.
class CapturedOutput {
public:
    CapturedOutput() : m_file(memfd_create("output", MFD_CLOEXEC)), m_before(dup(STDOUT_FILENO)) {
        std::fflush(stdout);
        dup2(m_file, STDOUT_FILENO);
    }
    ~CapturedOutput() {
        std::fflush(stdout);
        dup2(m_before, STDOUT_FILENO);
        close(m_before);
        if (testing::Test::HasFailure()) showFailures();
        close(m_file);
    }
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;

    /// What came since the last call.
    std::string take() {
        std::fflush(stdout);
        std::string text(static_cast<std::size_t>(lseek(m_file, 0, SEEK_END) - m_taken), '\0');
        const ssize_t length = pread(m_file, text.data(), text.size(), m_taken);
        m_taken += length;
        return text;
    }

private:
    // GoogleTest tells failures on standard output too.
    void showFailures() {
        m_taken = 0;
        std::fputs(take().c_str(), stderr);
    }

    const int m_file;
    const int m_before;
    off_t m_taken = 0;
};

}  // namespace zenk_test
