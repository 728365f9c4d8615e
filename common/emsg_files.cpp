// File helpers of the log: buffered log files, generation and dated names,
// and the ad hoc trace files of bug_hunt.
#include "common/emsg_files.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <thread>

#include "base/fmt.h"

namespace korv {

bool LogFile::open(const std::string& path, const char* mode) {
    close();
    fp_ = std::fopen(path.c_str(), mode);
    if (fp_ == nullptr) return false;
    buf_ = std::make_unique<char[]>(kLogBufferSize);
    std::setvbuf(fp_, buf_.get(), _IOFBF, kLogBufferSize);
    return true;
}

bool LogFile::open_making_dir(const std::string& path, const char* mode) {
    if (open(path, mode)) return true;
    if (errno != ENOENT) return false;
    size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return false;
    // Makes each missing level of the directory.
    std::string dir = path.substr(0, slash);
    for (size_t at = 1; at <= dir.size(); at++) {
        if (at == dir.size() || dir[at] == '/') mkdir(dir.substr(0, at).c_str(), 0755);
    }
    return open(path, mode);
}

void LogFile::close() {
    if (fp_ != nullptr) std::fclose(fp_);
    fp_ = nullptr;
    buf_.reset();
}

long LogFile::size() const {
    struct stat sb {};
    if (fp_ == nullptr || fstat(fileno(fp_), &sb) != 0) return 0;
    return static_cast<long>(sb.st_size);
}

long file_size(const std::string& path) {
    struct stat sb {};
    if (stat(path.c_str(), &sb) != 0) return 0;
    return static_cast<long>(sb.st_size);
}

std::string errtext(int err) {
    char bf[256];
    return strerror_r(err, bf, sizeof bf);  // the GNU form returns the text
}

std::string emsg_fname_n(std::string_view fname, int i) {
    std::string name(fname);
    if (i == 0) return name;
    size_t slash = name.rfind('/');
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        std::fprintf(stderr, "emsg fname failed (%.100s)\n", name.c_str());
        std::fflush(stdout);
        std::abort();
    }
    return strfmt("%s%d.%s", name.substr(0, dot).c_str(), i + 1, name.substr(dot + 1).c_str());
}

std::string emsg_fname_date_at(std::string_view fname, time_t t, time_t now) {
    std::string name(fname);
    if (now - t < 82800) return name;
    tm d{};
    localtime_r(&t, &d);
    std::string date = strfmt("%02d%02d%02d", d.tm_year - 100, d.tm_mon + 1, d.tm_mday);
    size_t slash = name.rfind('/');
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) {
        return strfmt("%s_%s", name.c_str(), date.c_str());
    }
    return strfmt("%s_%s.%s", name.substr(0, dot).c_str(), date.c_str(), name.substr(dot + 1).c_str());
}

std::string emsg_fname_date(std::string_view fname, time_t t) {
    return emsg_fname_date_at(fname, t, time(nullptr));
}

// ---------------------------------------------------------------- bug_hunt

int bug_hunt(const char* file, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    std::string text = vstrfmt(format, ap);
    va_end(ap);
    FILE* fp = std::fopen(file, "a");
    if (fp == nullptr) return 0;
    time_t now = time(nullptr);
    tm t{};
    localtime_r(&now, &t);
    char stamp[64];
    asctime_r(&t, stamp);
    std::fputs(stamp, fp);
    std::fputs(text.c_str(), fp);
    std::fseek(fp, 0, SEEK_END);
    long size = std::ftell(fp);
    std::fclose(fp);
    if (size > kBugHuntRollSize) bug_rotate(file);
    return 1;
}

void bug_rotate(const char* file) {
    for (int i = 4; i >= 0; i--) {
        std::string from = strfmt("%s%d", file, i);
        std::string to = strfmt("%s%d", file, i + 1);
        std::rename(from.c_str(), to.c_str());
    }
    std::string gen0 = strfmt("%s%d", file, 0);
    // Another writer may hold the file for a moment; a lasting failure ends the tries.
    for (int tries = 0; tries < 50; tries++) {
        if (std::rename(file, gen0.c_str()) == 0) return;
        if (errno != EBUSY && errno != EINTR && errno != ETXTBSY) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace korv
