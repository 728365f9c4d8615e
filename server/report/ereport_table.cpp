// Grouping of transfers and the printed tables of the emailed reports.
#include "server/report/ereport_table.h"

#include <algorithm>
#include <cstring>

#include "base/fmt.h"

namespace korv {

namespace {

void add_or_increment(std::unordered_map<std::string, ReportStat>& m, const std::string& key,
                      const EreportDataUnit& u) {
    auto [it, fresh] = m.try_emplace(key);
    ReportStat& s = it->second;
    if (fresh) {
        s.filename = u.filename;
        s.first_size = u.size;
        s.singlefile = u.size;
        s.sec_min = s.sec_max = u.secs;
    } else {
        s.sec_min = std::min(s.sec_min, u.secs);
        s.sec_max = std::max(s.sec_max, u.secs);
    }
    s.bytes += u.size;
    if (u.transfer_complete)
        ++s.count_ok;
    else
        ++s.count_bad;
}

std::string rate(long long size, int secs) {
    return frmt_min_length_float_str(static_cast<double>(size) / (secs + 0.5), 7, "b/s");
}

}  // namespace

void ReportGroups::add(const EreportDataUnit& u) {
    std::string key = u.filename;
    if (match_size_too) {
        key += '\0';
        key += u.filesize;
    }
    add_or_increment(u.uldl ? ul_ : dl_, key, u);
    add_or_increment(both_, key, u);
}

const std::unordered_map<std::string, ReportStat>& ReportGroups::of(ReportKind k) const {
    return k == ReportKind::ul ? ul_ : k == ReportKind::dl ? dl_ : both_;
}

void ReportGroups::clear() {
    ul_.clear();
    dl_.clear();
    both_.clear();
}

std::vector<const ReportStat*> report_sorted(const ReportGroups& g, ReportKind kind) {
    std::vector<const ReportStat*> v;
    for (const auto& [key, s] : g.of(kind)) v.push_back(&s);
    std::sort(v.begin(), v.end(), [](const ReportStat* a, const ReportStat* b) {
        if (a->count_ok != b->count_ok) return a->count_ok > b->count_ok;
        if (a->filename != b->filename) return a->filename < b->filename;
        return a->singlefile < b->singlefile;
    });
    return v;
}

std::string frmt_min_length_float_str(double value, int width, const char* unit) {
    static const char* const prefixes[] = {"", "K", "M", "G", "T", "P"};
    const int room_unit = static_cast<int>(strlen(unit));
    std::string s;
    for (const char* p : prefixes) {
        int room = width - static_cast<int>(strlen(p)) - room_unit;
        s = strfmt("%.1f", value);
        if (static_cast<int>(s.size()) > room) s = strfmt("%.0f", value);
        if (static_cast<int>(s.size()) <= room) return s + p + unit;
        value /= 1024.0;
    }
    return s + prefixes[5] + unit;
}

bool list_do_top_n(const ReportLineFn& out, const ReportColumns& cols, const ReportGroups& g, ReportKind kind,
                   int limit) {
    std::vector<const ReportStat*> rows = report_sorted(g, kind);
    if (rows.empty()) return out(" (no matching files located)");
    std::string head = "  full";
    if (cols.problems) head += "/partial";
    if (cols.speeds) head += " max / min rate";
    if (cols.single) head += "  Filesize ";
    if (cols.size) head += "   transferred ";
    head += " (filename)";
    if (!out(head)) return false;
    int n = 0;
    for (const ReportStat* s : rows) {
        if (limit >= 0 && n >= limit) break;
        ++n;
        std::string line = strfmt("%6d", s->count_ok);
        if (cols.problems) strfmt_append(line, "/%-7d", s->count_bad);
        if (cols.speeds)
            strfmt_append(line, " %7s - %-7s", rate(s->first_size, s->sec_min).c_str(),
                          rate(s->first_size, s->sec_max).c_str());
        if (cols.single) strfmt_append(line, "%8lldk", s->singlefile / 1024);
        if (cols.size) strfmt_append(line, " %14lldk", s->bytes / 1024);
        strfmt_append(line, " %s", s->filename.c_str());
        if (!out(line)) return false;
    }
    return true;
}

}  // namespace korv
