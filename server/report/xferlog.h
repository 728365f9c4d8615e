// The reader of the transfer logs for the emailed reports: one line of
// "xfer.log" into its fields, the report's filters (direction, period, file
// names), and a whole file read line by line, so that a large log never sits
// in memory.
#pragma once

#include <ctime>
#include <functional>
#include <string>

namespace korv {

inline constexpr int kXferLineMax = 997;   // longer lines are cut here and counted as one
inline constexpr int kXferTokens = 18;     // fields of a good line (the stamp is five)
inline constexpr int kXferTokensMin = 15;  // fewer than this: dropped without a word

// One transfer.
struct EREPORT_DATA_UNIT {
    std::string filename;
    std::string user;
    std::string ip;
    std::string filesize;  // as written, decimal
    long long size = 0;
    int secs = 0;
    int transfer_complete = 0;
    char mode = 'b';
    int uldl = 0;  // 1 for an upload
    time_t when = 0;
};
using EreportDataUnit = EREPORT_DATA_UNIT;

// What one report keeps.
struct XFER_FILTER {
    bool ul = true;
    bool dl = true;
    time_t sec_from = 0;
    time_t sec_to = 0;
    std::string filter;  // comma list of wild-cards; empty keeps every name
};
using XferFilter = XFER_FILTER;

// 1 when `line` is a good transfer line that passes `f`, with `out` filled.
// Bad lines are logged and give 0, as do lines the filters drop.
int ereport_add_line(const char* line, const XferFilter& f, EreportDataUnit& out);

using XferSink = std::function<void(const EreportDataUnit&)>;
// Reads the file at `path`, handing each kept transfer to `sink`. The count
// kept, or -1 when the file cannot be opened (noted in the debug log only).
long ereport_process(const char* path, const XferFilter& f, const XferSink& sink);

// A comma list of wild-cards against a name, ignoring case; an empty list
// matches everything.
int simple_match_wild_comma_list(const char* list, const char* name);

}  // namespace korv
