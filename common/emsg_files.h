// File helpers of the log: the owner of one buffered log file, the names of
// rotated and dated generations, and the ad hoc trace files of bug_hunt.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

#include "common/emsg.h"

namespace korv {

constexpr long kBugHuntRollSize = 1000000;  // a bug_hunt file rolls above this

// One log file with its own 32768-byte buffer; closes on destruction.
class LogFile {
public:
    LogFile() = default;
    ~LogFile() { close(); }
    LogFile(const LogFile&) = delete;
    LogFile& operator=(const LogFile&) = delete;

    bool open(const std::string& path, const char* mode);
    // As open, but a missing directory is made (mode 0700) and the file opened with "w".
    bool open_making_dir(const std::string& path, const char* mode);
    void close();
    bool is_open() const { return fp_ != nullptr; }
    FILE* fp() const { return fp_; }
    long size() const;

private:
    FILE* fp_ = nullptr;
    std::unique_ptr<char[]> buf_;
};

long file_size(const std::string& path);  // 0 when missing
std::string errtext(int err);             // strerror_r, reentrant

}  // namespace korv
