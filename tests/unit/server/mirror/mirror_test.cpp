// The mirror engine's tools and its job file: remove_path, listing dates
// around daylight-saving changes, the lines of mirrors.dat (short, old and
// long lines, bars), the file's round trip and mode, ids after deletions, and
// the checks that keep a job inside its directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "server/mirror/mirror.h"
#include "tests/support/certs.h"
#include "tests/support/texts.h"

namespace korv {
namespace {

namespace fs = std::filesystem;

TEST(MirrorTools, RemovePath) {
    const struct {
        const char *file, *path, *want;
    } cases[] = {
        {"/pub/dir/file", "/pub", "dir/file"},
        {"pub/dir/file", "pub", "dir/file"},
        {"\\pub\\dir", "/pub", "dir"},
        {"/pub", "/pub", ""},
        {"/other/file", "/pub", "other/file"},
        {"/file", "", "file"},
        {"//pub/x", "/pub", "/pub/x"},  // only one leading slash is skipped
        {"/pub/x", "//pub", "pub/x"},
    };
    for (const auto& c : cases) {
        std::string s = c.file;
        remove_path(s, c.path);
        EXPECT_EQ(s, c.want) << c.file << " minus " << c.path;
    }
}

// Listing dates are local times; the daylight flag comes from the date itself.
TEST(MirrorTools, DateToTimeAcrossDaylightSaving) {
    const char* old_tz = getenv("TZ");
    std::string saved = old_tz != nullptr ? old_tz : "";
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
    auto utc = [](int y, int mon, int d, int h, int mi) {
        struct tm tm{};
        tm.tm_year = y - 1900;
        tm.tm_mon = mon - 1;
        tm.tm_mday = d;
        tm.tm_hour = h;
        tm.tm_min = mi;
        return timegm(&tm);
    };
    const struct {
        const char* text;
        time_t want;
    } cases[] = {
        {"Jan 15 2021", utc(2021, 1, 14, 23, 0)},         // winter: UTC+1
        {"Jul 15 2021", utc(2021, 7, 14, 22, 0)},         // summer: UTC+2
        {"Mar 27 2021", utc(2021, 3, 26, 23, 0)},         // the day before the change
        {"Mar 28 2021", utc(2021, 3, 27, 23, 0)},         // the day of the change, midnight still winter
        {"Oct 31 2021", utc(2021, 10, 30, 22, 0)},        // the day it ends: midnight still summer
        {"Nov  1 2021", utc(2021, 10, 31, 23, 0)},
        {"07-15-21  01:30PM", utc(2021, 7, 15, 11, 30)},  // DOS form, summer afternoon
        {"01-15-21  12:05AM", utc(2021, 1, 14, 23, 5)},   // 12 AM is midnight
        {"12-31-99  11:59PM", utc(1999, 12, 31, 22, 59)},
        {"", 0},
        {"garbage", 0},
    };
    for (const auto& c : cases) EXPECT_EQ(date_to_time(c.text), c.want) << c.text;

    // A time without a year is within the last year, never in the future.
    const time_t now = time(nullptr);
    struct tm lt{};
    localtime_r(&now, &lt);
    char bf[64];
    strftime(bf, sizeof bf, "%b %e %H:%M", &lt);
    EXPECT_LE(std::llabs(static_cast<long long>(date_to_time(bf) - now)), 60) << bf;
    time_t later = now + 40 * 86400;
    localtime_r(&later, &lt);
    strftime(bf, sizeof bf, "%b %e %H:%M", &lt);
    time_t t = date_to_time(bf);
    EXPECT_LT(t, now) << bf;
    EXPECT_GT(t, now - 366 * 86400) << bf;

    if (old_tz != nullptr)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
}

TEST(MirrorTools, JobFileLines) {
    const std::string long_host(990, 'h');
    const struct {
        std::string line;
        int ok;
        int id;
        const char* host;
        int use_full_path, mirror_ssl, subdir, trim;
        const char* pass;
    } cases[] = {
        {"1|h|/p|*|/l|TRUE|FALSE|5|u|pw|TRUE|TRUE", 1, 1, "h", 1, 1, 1, 0, "pw"},
        {"2|h|/p|*|/l|true|True|5|u|pw|false|false", 1, 2, "h", 0, 0, 1, 1, "pw"},
        // Ten fields: written before the last two existed.
        {"3|h|/p|*|/l|FALSE|FALSE|5|u|pw", 1, 3, "h", 1, 0, 0, 0, "pw"},
        // Nine fields make no job.
        {"4|h|/p|*|/l|FALSE|FALSE|5|u", 0, 0, "", 0, 0, 0, 0, ""},
        // Empty fields keep their places.
        {"5||/p||/l|||0|||", 1, 5, "", 1, 0, 0, 0, ""},
        // Extra fields are ignored; a line end ends the last field.
        {"6|h|/p|*|/l|FALSE|FALSE|5|u|pw|FALSE|TRUE|more|fields\r\n", 1, 6, "h", 0, 1, 0, 0, "pw"},
        // A long line is read up to its limit: the fields past it are gone.
        {"7|" + long_host + "|/p|*|/l|FALSE|FALSE|5|u|pw|FALSE|TRUE", 0, 0, "", 0, 0, 0, 0, ""},
        {"", 0, 0, "", 0, 0, 0, 0, ""},
    };
    for (const auto& c : cases) {
        MIRROR m;
        EXPECT_EQ(mirror_parse_line(c.line, m), c.ok) << c.line;
        if (!c.ok) continue;
        EXPECT_EQ(m.id, c.id);
        EXPECT_EQ(m.remote_host, c.host);
        EXPECT_EQ(m.use_full_path, c.use_full_path) << c.line;
        EXPECT_EQ(m.mirror_ssl, c.mirror_ssl) << c.line;
        EXPECT_EQ(m.subdir, c.subdir) << c.line;
        EXPECT_EQ(m.trim, c.trim) << c.line;
        EXPECT_EQ(m.pass, c.pass) << c.line;
        EXPECT_EQ(m.tlast, 0);
    }
    MIRROR m;
    m.id = 9;
    m.remote_host = "example.org:2121";
    m.remote_path = "/pub";
    m.files = "*.iso,!*beta*";
    m.lcl = "/srv/ftp/mirror";
    m.subdir = 1;
    m.xdelay = 60;
    m.user = "anonymous";
    m.pass = "me@example.org";
    m.use_full_path = 0;
    m.mirror_ssl = 1;
    EXPECT_EQ(mirror_format_line(m),
              "9|example.org:2121|/pub|*.iso,!*beta*|/srv/ftp/mirror|TRUE|FALSE|60|anonymous|me@example.org|FALSE|TRUE\n");
    MIRROR back;
    ASSERT_EQ(mirror_parse_line(mirror_format_line(m), back), 1);
    EXPECT_EQ(mirror_format_line(back), mirror_format_line(m));
}

TEST(MirrorTools, JobFileRoundTripAndIds) {
    test::TempDir dir("mirrorjobs");
    mirror_set_dir(dir.path());
    {
        std::ofstream(dir.file("mirrors.dat")) << "3|a|/p|*|/l|FALSE|FALSE|5|u|pw\n"
                                                  "nonsense line\n"
                                                  "5|b|/p|*|/l|FALSE|FALSE|5|u|pw|FALSE|TRUE\n";
    }
    ASSERT_EQ(mirror_load("mirrors.dat"), 2);
    std::vector<MIRROR> jobs = mirror_list();
    ASSERT_EQ(jobs.size(), 2u);
    int isnew = 0;
    MIRROR fresh = mirror_find(0, &isnew);
    EXPECT_EQ(isnew, 1);
    EXPECT_EQ(fresh.id, 6);
    EXPECT_EQ(fresh.remote_host, "rmthost");
    EXPECT_EQ(mirror_list().size(), 2u);  // a look at a new job adds nothing

    // Deleting the highest lets its id come back; saving a new job takes it.
    ASSERT_EQ(mirror_delete(5), 1);
    EXPECT_EQ(mirror_delete(5), 0);
    EXPECT_EQ(mirror_find(0).id, 4);
    fresh.id = 0;
    fresh.remote_host = "c";
    EXPECT_EQ(mirror_store(fresh), 4);
    // Saving an existing job changes it in place and queues it.
    MIRROR a = mirror_find(3);
    a.remote_host = "a2";
    EXPECT_EQ(mirror_store(a), 3);
    EXPECT_EQ(mirror_find(3).remote_host, "a2");
    EXPECT_EQ(mirror_find(3).last_error, "Queued to start.\n");

    ASSERT_EQ(mirror_write(), 1);
    struct stat st{};
    ASSERT_EQ(stat(dir.file("mirrors.dat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);  // it holds passwords
    const std::string text = test::slurp(dir.file("mirrors.dat"));
    EXPECT_EQ(text.find("|b|"), std::string::npos);
    ASSERT_EQ(mirror_load("mirrors.dat"), 2);
    std::vector<MIRROR> again = mirror_list();
    ASSERT_EQ(again.size(), 2u);
    // The order survives a write and a load.
    EXPECT_EQ(again[0].id, 4);
    EXPECT_EQ(again[1].id, 3);
    EXPECT_EQ(again[1].remote_host, "a2");
    mirror_free_all();
    mirror_set_dir("");
}

TEST(MirrorTools, NamesAndPathsStayInside) {
    const struct {
        std::string name;
        int ok;
    } names[] = {
        {"file.txt", 1}, {"with blank", 1}, {".hidden", 1}, {"..x", 1}, {".", 0}, {"..", 0}, {"a/b", 0},
        {"a\\b", 0},     {std::string("a\0b", 3), 0}, {std::string(255, 'n'), 1}, {std::string(256, 'n'), 0}, {"", 0},
    };
    for (const auto& n : names) EXPECT_EQ(mirror_name_ok(n.name), n.ok) << n.name.size() << " " << n.name.substr(0, 20);

    test::TempDir dir("mirrorinside");
    const std::string base = dir.file("ftp");
    fs::create_directories(base + "/sub");
    fs::create_directories(dir.file("outside"));
    fs::create_directory_symlink(dir.file("outside"), base + "/escape");
    const struct {
        std::string path;
        int ok;
    } paths[] = {
        {base + "/file", 1},
        {base + "//sub///file", 1},
        {base + "/new/dir/file", 1},
        {base, 0},
        {base + "/../outside/file", 0},
        {base + "/sub/../../x", 0},
        {base + "x/file", 0},
        {dir.file("outside/file"), 0},
        {base + "/escape/file", 0},  // through a link out of the directory
        {base + "/escape", 1},       // the link itself may be replaced
    };
    for (const auto& p : paths) EXPECT_EQ(mirror_inside(base, p.path), p.ok) << p.path;
    EXPECT_EQ(mirror_fixslash("a\\b//c///d"), "a/b/c/d");
}

}  // namespace
}  // namespace korv
