// The tables of the emailed reports: transfers grouped by file name (and by
// size too when the file's size is a column), ordered by complete transfers,
// and printed one line at a time through a caller's line writer.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "server/report/xferlog.h"

namespace korv {

// One group of transfers of the same file.
struct REPORT_STAT {
    std::string filename;
    long long first_size = 0;  // size of the group's first transfer
    int count_ok = 0;
    int count_bad = 0;
    int sec_min = 0;
    int sec_max = 0;
    long long bytes = 0;       // sum of the sizes
    long long singlefile = 0;  // size of the first
};
using ReportStat = REPORT_STAT;

// Which direction a table shows.
enum class ReportKind { ul, dl, both };

// The groups of one run, for all three directions at once, built while the
// logs are read: memory follows the number of files, not of transfers.
struct REPORT_GROUPS {
    bool match_size_too = false;  // the same name with another size is another group
    void add(const EreportDataUnit& u);
    const std::unordered_map<std::string, ReportStat>& of(ReportKind k) const;
    void clear();

  private:
    std::unordered_map<std::string, ReportStat> ul_, dl_, both_;
};
using ReportGroups = REPORT_GROUPS;

// The optional columns, in their print order after the complete count.
struct REPORT_COLUMNS {
    bool problems = false;  // incomplete transfers
    bool speeds = false;    // fastest and slowest rate
    bool single = false;    // size of the file
    bool size = false;      // bytes transferred
};
using ReportColumns = REPORT_COLUMNS;

// Writes one line (the line end is added by the writer); false stops the table.
using ReportLineFn = std::function<bool(std::string_view)>;

// The groups of `kind`, most complete transfers first (then by name).
std::vector<const ReportStat*> report_sorted(const ReportGroups& g, ReportKind kind);

// The heading and up to `limit` rows (all of them for a negative limit), or
// " (no matching files located)". false when the writer failed.
bool list_do_top_n(const ReportLineFn& out, const ReportColumns& cols, const ReportGroups& g, ReportKind kind,
                   int limit);

// A rate in at most `width` characters with its unit ("812b/s", "1.5Kb/s").
std::string frmt_min_length_float_str(double value, int width, const char* unit);

}  // namespace korv
