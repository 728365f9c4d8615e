// Writing the built-in page table back to disk: line form, folders made,
// and every failure reported and counted.
#include "server/admin/webfiles.h"

#include <gtest/gtest.h>

#include <string>

#include "tests/support/certs.h"
#include "tests/support/texts.h"

namespace korv {
namespace {

TEST(WebFilesOutput, WritesLinesIntoFreshFoldersAndReportsFailures) {
    test::TempDir dir("webfiles");
    const std::string root = dir.file("inst");
    struct {
        const char* location;
        std::string_view text;
        int ok;
        std::string file;  // what the file holds afterwards
        std::string said;  // after the "Outputting" line
    } cases[] = {
        {"/web/a.htm", "<html>\n<p>x</p>\n", 1, "<html>\n<p>x</p>\n", ""},
        // A last line without its end gets one.
        {"/web/b.htm", "one\ntwo", 1, "one\ntwo\n", ""},
        {"/web/empty.htm", "", 0, "", "cannot output to file, (" + root + "//web/empty.htm) the page was not built into this program\n"},
        // The place is taken by a folder.
        {"/web", "x\n", 0, "", "cannot output to file, (" + root + "//web) Is a directory\n"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStdout();
        int ok = output_web_file_from_table(root.c_str(), c.location, "T", c.text);
        fflush(stdout);
        std::string said = testing::internal::GetCapturedStdout();
        EXPECT_EQ(ok, c.ok) << c.location;
        EXPECT_EQ(said, "Outputting T file to " + root + "/" + c.location + "\n" + c.said) << c.location;
        if (c.ok) {
            EXPECT_EQ(test::slurp(root + c.location), c.file) << c.location;
        }
    }
}

TEST(WebFilesOutput, TableHoldsTheEightPagesInOrder) {
    int n = 0;
    const SERV_TABLE* t = serv_table(&n);
    ASSERT_EQ(n, 8);
    const char* want[][2] = {{"/web/global.htm", "Global"}, {"/web/mirror.htm", "Mirror"},
                             {"/web/mirrors.htm", "Mirrors"}, {"/web/domain.htm", "Domain"},
                             {"/web/class.htm", "Class"},     {"/web/report.htm", "Report"},
                             {"/web/status.htm", "Status"},   {"/web/log.htm", "Log"}};
    for (int i = 0; i < n; i++) {
        EXPECT_STREQ(t[i].table_location, want[i][0]);
        EXPECT_STREQ(t[i].table_title, want[i][1]);
        // Built in from the repository's page, byte for byte.
        std::string src = std::string(KORV_SOURCE_DIR) + t[i].table_location;
        std::string text = test::slurp(src);
        EXPECT_EQ(std::string(t[i].table), text) << src;
    }
}

}  // namespace
}  // namespace korv
