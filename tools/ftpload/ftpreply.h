// ftpload's pure parts: the FTP reply framer (single and multi-line replies), the passive-mode
// address parser, and the statistics of a set of samples (median, percentiles).
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace korv {

// One complete reply: its three-digit code and the text of its last line.
struct FTPREPLY {
    int code = 0;
    std::string text;  // the whole last line, without the line end
};
using FtpReply = FTPREPLY;

// Collects lines until a reply is complete. A reply is one line "ddd text", or "ddd-text" followed
// by any lines up to one that starts with the same code and a blank. Lines come without "\r\n".
class ReplyFramer {
public:
    // 1: `out` holds a complete reply; 0: more lines needed; -1: the first line has no code.
    int feed(std::string_view line, FtpReply& out) {
        if (code_ == 0) {
            int c = code_of(line);
            if (c < 0) return -1;
            if (line.size() > 3 && line[3] == '-') {
                code_ = c;
                return 0;
            }
            out.code = c;
            out.text.assign(line);
            return 1;
        }
        if (code_of(line) == code_ && (line.size() == 3 || line[3] == ' ')) {
            out.code = code_;
            out.text.assign(line);
            code_ = 0;
            return 1;
        }
        return 0;
    }
    bool in_multiline() const { return code_ != 0; }

private:
    static int code_of(std::string_view l) {
        if (l.size() < 3) return -1;
        for (int i = 0; i < 3; i++)
            if (l[i] < '0' || l[i] > '9') return -1;
        if (l[0] < '1' || l[0] > '5') return -1;
        if (l.size() > 3 && l[3] != ' ' && l[3] != '-') return -1;
        return (l[0] - '0') * 100 + (l[1] - '0') * 10 + (l[2] - '0');
    }
    int code_ = 0;  // code of an open multi-line reply
};

// The port of "227 ... (h1,h2,h3,h4,p1,p2)", with or without the parenthesis (then the numbers
// start at the first digit after the code); -1 when there are no six numbers in range.
inline int pasv_port(std::string_view text) {
    size_t at = text.find('(');
    at = at != std::string_view::npos ? at + 1 : text.find_first_of("0123456789", 3);
    int nums[6];
    for (int i = 0; i < 6; i++) {
        if (at >= text.size() || text[at] < '0' || text[at] > '9') return -1;
        int v = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            v = v * 10 + (text[at++] - '0');
            if (v > 255) return -1;
        }
        nums[i] = v;
        if (i < 5) {
            if (at >= text.size() || text[at] != ',') return -1;
            at++;
        }
    }
    int port = nums[4] * 256 + nums[5];
    return port > 0 ? port : -1;
}

// Nearest-rank percentile (p in 0..100] of the samples; 0 for none. Sorts `v` in place.
inline double percentile(std::vector<double>& v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    rank = std::clamp<size_t>(rank, 1, v.size());
    return v[rank - 1];
}

// The middle sample, or the mean of the two middle ones; 0 for none. Sorts `v` in place.
inline double median(std::vector<double>& v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace korv
