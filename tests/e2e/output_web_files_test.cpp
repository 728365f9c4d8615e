// `korvane -output_web_files DIR` writes the main admin pages built into the
// program under DIR/web and says so, with no configuration needed.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tests/support/korv_server.h"
#include "tests/support/texts.h"

namespace korv::test {
namespace {

TEST(OutputWebFiles, WritesTheEightPagesAsTheRepositoryHoldsThem) {
    KorvServer s(KorvServer::basic_config());
    const std::string out = s.path("inst");
    const KorvServer::Run run = s.run_bare({"-output_web_files", out});
    ASSERT_TRUE(WIFEXITED(run.status)) << run.status;

    const char* pages[][2] = {{"global", "Global"}, {"mirror", "Mirror"}, {"mirrors", "Mirrors"},
                              {"domain", "Domain"}, {"class", "Class"},   {"report", "Report"},
                              {"status", "Status"}, {"log", "Log"}};
    std::string said;
    bool all = true;
    for (const auto& p : pages) {
        std::string at = out + "//web/" + p[0] + ".htm";
        said += std::string("Outputting ") + p[1] + " file to " + at + "\n";
        std::string src = std::string(KORV_SOURCE_DIR) + "/web/" + p[0] + ".htm";
        if (access(src.c_str(), R_OK) != 0) {
            // A page missing when the program was built is reported, not invented.
            said += "cannot output to file, (" + at + ") the page was not built into this program\n";
            all = false;
            continue;
        }
        std::string text = slurp(src);
        if (!text.empty() && text.back() != '\n') text += '\n';
        EXPECT_EQ(slurp(at), text) << at;
    }
    EXPECT_EQ(run.out, said);
    EXPECT_EQ(WEXITSTATUS(run.status), all ? 0 : 1);

    const KorvServer::Run help = s.run_bare({"-help"});
    EXPECT_NE(help.out.find("\n  -output_web_files DIR "), std::string::npos) << help.out;
}

}  // namespace
}  // namespace korv::test
