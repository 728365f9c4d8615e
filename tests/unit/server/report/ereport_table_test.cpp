// The report tables against totals worked out by hand: grouping by name (and
// by size), complete and unfinished counts, rates, sizes in kilobytes, the
// order, the top-ten cut, and the rate's short form.
#include "server/report/ereport_table.h"

#include <gtest/gtest.h>

#include "base/fmt.h"

namespace korv {
namespace {

EreportDataUnit unit(const char* name, int uldl, int complete, long long size, int secs) {
    EreportDataUnit u;
    u.filename = name;
    u.uldl = uldl;
    u.transfer_complete = complete;
    u.size = size;
    u.filesize = std::to_string(size);
    u.secs = secs;
    return u;
}

// Equal counts go by name, so that a table reads the same on every run.
// The sample of every test: a.zip downloaded three times (once unfinished,
// once a shorter file), b.txt uploaded, c.iso both ways.
ReportGroups sample(bool by_size) {
    ReportGroups g;
    g.match_size_too = by_size;
    for (const EreportDataUnit& u : {unit("a.zip", 0, 1, 2048, 1), unit("a.zip", 0, 1, 2048, 3),
                                     unit("a.zip", 0, 0, 1024, 0), unit("b.txt", 1, 1, 10240, 0),
                                     unit("c.iso", 0, 1, 1048576, 2), unit("c.iso", 1, 1, 1048576, 4)})
        g.add(u);
    return g;
}

std::vector<std::string> table(const ReportGroups& g, ReportColumns cols, ReportKind kind, int limit) {
    std::vector<std::string> out;
    EXPECT_TRUE(list_do_top_n(
        [&](std::string_view l) {
            out.emplace_back(l);
            return true;
        },
        cols, g, kind, limit));
    return out;
}

TEST(ReportTable, GroupsAgainstHandComputedTotals) {
    const ReportGroups g = sample(false);
    struct Case {
        const char* name;
        ReportColumns cols;
        ReportKind kind;
        bool by_size;
        std::vector<std::string> want;
    };
    const Case cases[] = {
        {"every column of the downloads", {true, true, true, true}, ReportKind::dl, false,
         {"  full/partial max / min rate  Filesize    transferred  (filename)",
          "     2/1       4096b/s - 585b/s        2k              5k a.zip",
          "     1/0       410Kb/s - 410Kb/s    1024k           1024k c.iso"}},
        {"three transfers, one unfinished", {true, false, false, false}, ReportKind::dl, false,
         {"  full/partial (filename)", "     2/1       a.zip", "     1/0       c.iso"}},
        {"uploads, bytes transferred", {false, false, false, true}, ReportKind::ul, false,
         {"  full   transferred  (filename)", "     1             10k b.txt", "     1           1024k c.iso"}},
        {"both directions add up", {false, false, false, true}, ReportKind::both, false,
         {"  full   transferred  (filename)", "     2              5k a.zip", "     2           2048k c.iso",
          "     1             10k b.txt"}},
        {"the file's size splits a name", {false, false, true, false}, ReportKind::dl, true,
         {"  full  Filesize  (filename)", "     2       2k a.zip", "     1    1024k c.iso", "     0       1k a.zip"}},
    };
    for (const Case& c : cases) EXPECT_EQ(table(c.by_size ? sample(true) : g, c.cols, c.kind, -1), c.want) << c.name;
}

TEST(ReportTable, TopTenCutAndEmptyList) {
    ReportGroups g;
    for (int i = 0; i < 12; ++i)
        for (int n = 0; n <= i; ++n) g.add(unit(strfmt("f%02d", i).c_str(), 0, 1, 100, 1));
    std::vector<std::string> top = table(g, {}, ReportKind::dl, 10);
    ASSERT_EQ(top.size(), 11u);  // heading and ten rows
    EXPECT_EQ(top[1], "    12 f11");
    EXPECT_EQ(top[10], "     3 f02");
    EXPECT_EQ(table(g, {}, ReportKind::dl, -1).size(), 13u);
    EXPECT_EQ(table(g, {}, ReportKind::ul, 10), std::vector<std::string>{" (no matching files located)"});
}

TEST(ReportTable, RatesFitSevenCharacters) {
    const struct {
        double v;
        const char* want;
    } cases[] = {
        {0, "0.0b/s"},        {585.14, "585b/s"},      {4096, "4096b/s"},      {10000, "9.8Kb/s"},
        {419430.4, "410Kb/s"}, {5e6, "4.8Mb/s"},       {3e12, "2.7Tb/s"},
    };
    for (const auto& c : cases) {
        std::string s = frmt_min_length_float_str(c.v, 7, "b/s");
        EXPECT_EQ(s, c.want) << c.v;
        EXPECT_LE(s.size(), 7u);
    }
}

}  // namespace
}  // namespace korv
