// The pieces of the settings editors that stand alone: path aliases, the
// limit sentences, the refusal of values that would break a line, pages
// rendered into memory, the per-minute transfer ring and its chart.
#include "server/admin/settings_pages.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <string>

#include "server/admin/webadmin.h"
#include "server/session/traffic.h"
#include "tests/support/certs.h"

namespace korv {

namespace {

TEST(SettingsAlias, TrailingSlashesGoAndOneComesBack) {
    const std::pair<const char*, const char*> cases[] = {
        {"/pub///", "/pub/"}, {"/pub", "/pub/"}, {"/", "/"},     {"", "/"},
        {"//", "//"},         {"/a\\\\", "/a/"}, {"/a/b/", "/a/b/"}, {"x", "x/"},
    };
    for (const auto& [in, want] : cases) EXPECT_EQ(settings_alias(in), want) << in;
}

TEST(SettingsSpeedText, SentencesReadBackByAtoi) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "Unlimited"},
        {"0", "Unlimited"},
        {"Unlimited", "Unlimited"},
        {"200", "200k bytes per second"},
        {"5MB per second", "5MB per second"},
        {"30k bytes per second", "30k bytes per second"},
        {"64 K bytes", "64k bytes per second"},
        {"123456", "123456 bytes per second"},
    };
    for (const auto& [stored, shown] : cases) {
        EXPECT_EQ(settings_speed_text(stored), shown) << stored;
        EXPECT_EQ(atoi(settings_speed_text(stored).c_str()), atoi(stored)) << "the number survives a save";
    }
}

TEST(SettingsBadField, NamesTheFirstFieldThatWouldBreakALine) {
    struct Case {
        std::vector<std::pair<std::string, std::string>> form;
        std::string multiline;
        std::string want;
    };
    const Case cases[] = {
        {{{"log_level", "info"}, {"global_port", "21"}}, "", ""},
        {{{"log_level", "info"}, {"global_smtp", "a\"b"}}, "", "global_smtp"},
        {{{"deny", "x\r\nemail \"y\""}}, "", "deny"},
        {{{"greetings", std::string("a\0b", 3)}}, "", "greetings"},
        {{{"banner", "one\r\ntwo"}}, "banner", ""},           // encoded before it is stored
        {{{"banner", "say \"hi\""}}, "banner", "banner"},     // a quote still breaks it
        {{{"", "x\ny"}}, "", ""},                              // a nameless pair is read by no save
    };
    for (const Case& c : cases) {
        WINK w;
        for (const auto& [k, v] : c.form) pair_add(w.form, k, v);
        EXPECT_EQ(settings_bad_field(&w, c.multiline), c.want);
    }
    EXPECT_NE(settings_refusal("deny").find("The field deny holds a double quote"), std::string::npos);
}

TEST(SettingsRender, PagesRenderIntoMemoryWithoutAConnection) {
    test::TempDir dir("korv-settings");
    {
        std::ofstream f(dir.file("p.htm"));
        f << "<p>||greeting||</p>\n||include||q.htm||\n";
        std::ofstream g(dir.file("q.htm"));
        g << "<i>||who||</i>\n";
    }
    web_set_dir(dir.path());
    WINK w;  // no channel: a write to it would fail
    web_var_add(&w, "greeting", "a<b");
    web_var_add(&w, "who", "me");
    std::string page;
    EXPECT_EQ(web_showfile_to(&w, "p.htm", nullptr, page), 1);
    EXPECT_EQ(page, "<p>a&lt;b</p>\n<i>me</i>\n");
    EXPECT_EQ(w.sink, nullptr) << "the sink is the render's own";
    web_set_dir("web");
}

TEST(Traffic, MinutesCountApartAndOldOnesFallOut) {
    traffic_reset();
    const time_t t0 = 1700000000 - 1700000000 % 60;
    traffic_add("o", 1000, t0 + 5);
    traffic_add("o", 500, t0 + 59);
    traffic_add("i", 70, t0 + 10);
    traffic_add("o", 9, t0 + 60);   // the next minute
    traffic_add("x", -5, t0);       // nothing
    std::vector<TRAFFIC_MINUTE> s = traffic_series(t0 + 60);
    ASSERT_EQ(s.size(), static_cast<size_t>(kTrafficMinutes));
    EXPECT_EQ(s.back().start, t0 + 60);
    EXPECT_EQ(s.back().down, 9);
    EXPECT_EQ(s[s.size() - 2].down, 1500);
    EXPECT_EQ(s[s.size() - 2].up, 70);
    // An hour later the same slots hold nothing of the old minutes.
    s = traffic_series(t0 + 60 + kTrafficMinutes * 60);
    for (const TRAFFIC_MINUTE& m : s) EXPECT_EQ(m.down + m.up, 0);
    traffic_add("i", 3, t0 + kTrafficMinutes * 60);  // reuses the slot of t0
    s = traffic_series(t0 + kTrafficMinutes * 60);
    EXPECT_EQ(s.back().up, 3);
    EXPECT_EQ(s.back().down, 0) << "the slot's older minute was dropped";
    traffic_reset();
}

TEST(Traffic, ChartScalesBarsToTheBusiestMinute) {
    std::vector<TRAFFIC_MINUTE> s(4);
    s[1].down = 2048;
    s[3].up = 1024;
    std::string svg = traffic_svg(s);
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("2.0 KB"), std::string::npos) << "the axis names the top";
    std::smatch m;
    std::regex bar("<rect x=\"\\d+\" y=\"\\d+\" width=\"\\d+\" height=\"(\\d+)\" fill=\"([^\"]+)\"");
    std::vector<std::pair<int, std::string>> bars;
    for (auto it = std::sregex_iterator(svg.begin(), svg.end(), bar); it != std::sregex_iterator(); ++it)
        bars.emplace_back(std::stoi((*it)[1]), (*it)[2]);
    ASSERT_EQ(bars.size(), 2u);
    EXPECT_EQ(bars[0].first, 2 * bars[1].first) << "heights in proportion";
    EXPECT_NE(bars[0].second, bars[1].second) << "downloads and uploads apart";
    // Nothing transferred: no bars, and no division by zero.
    EXPECT_EQ(traffic_svg(std::vector<TRAFFIC_MINUTE>(3)).find("<rect"), std::string::npos);
}

}  // namespace

}  // namespace korv
