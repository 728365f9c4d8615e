// Test fixture for the settings store: a small table of settings, a
// configuration file in a temporary directory, and the store's log and
// printed lines captured for inspection.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdarg>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "base/fmt.h"
#include "store/vini.h"

namespace korv::testing_vini {

// Codes of the test table.
enum : int {
  VDOMAIN = 0, EMAIL, DENY_MSG, MAX_AGE, CLASS, DIR, LIMIT, FLAG, HOME, LOG_LEVEL, STRIP, REUSE,
  PORT, NCODES
};

struct Row {
  const char* cmd;
  const char* dflt;
  int type;
};

inline const Row kRows[] = {
    {"vdomain address=string chroot=string name=string", "", VINI_DOMAIN | VINI_VDOMAIN},
    {"email string", "", VINI_DOMAIN},
    {"deny_msg string", "", VINI_DOMAIN},
    {"log_max_age int", "30", VINI_DOMAIN},
    {"class type=string from=string users=string groups=string name=string class_name=string", "",
     VINI_CLASS},
    {"dir alias=path path=path read=bool write=bool ", "", VINI_MULTI},
    {"limit_users int", "", 0},
    {"user_impersonate bool", "", 0},
    {"home path", "", VINI_DOMAIN | VINI_GLOBAL},
    {"log_level string", "info", VINI_DOMAIN | VINI_GLOBAL},
    {"global_strip_user_domain bool", "TRUE", VINI_DOMAIN | VINI_GLOBAL},
    {"global_thread_reuse bool", "true", VINI_DOMAIN | VINI_GLOBAL},
    {"global_port int", "21", VINI_DOMAIN | VINI_GLOBAL},
};

struct Captured {
  std::mutex m;
  std::vector<std::string> logs;
  std::vector<std::string> prints;
};

inline Captured& captured() {
  static Captured c;
  return c;
}

inline int capture_log(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string s = vstrfmt(format, ap);
  va_end(ap);
  std::lock_guard<std::mutex> g(captured().m);
  captured().logs.push_back(s);
  return 1;
}

inline void capture_print(const char* text) {
  std::lock_guard<std::mutex> g(captured().m);
  captured().prints.push_back(text);
}

// In a death test the printed lines must reach standard error to be matched.
inline void print_to_stderr(const char* text) { fputs(text, stderr); }

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
}

class ViniTest : public ::testing::Test {
 protected:
  void SetUp() override {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    char tmpl[] = "/tmp/vini_test_XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    dir_ = tmpl;
    path_ = dir_ + "/korvane.ini";
    clear_captured();
    vini_set_print(capture_print);
  }

  void TearDown() override {
    vini_exit();
    vini_set_print(nullptr);
    std::string cmd = "rm -rf '" + dir_ + "'";
    if (system(cmd.c_str()) != 0) ADD_FAILURE() << "could not remove " << dir_;
  }

  static void clear_captured() {
    std::lock_guard<std::mutex> g(captured().m);
    captured().logs.clear();
    captured().prints.clear();
  }
  static std::vector<std::string> logs() {
    std::lock_guard<std::mutex> g(captured().m);
    return captured().logs;
  }
  static std::vector<std::string> prints() {
    std::lock_guard<std::mutex> g(captured().m);
    return captured().prints;
  }

  // Defines the test table and loads `text` as the configuration file.
  void load(const std::string& text) {
    vini_exit();
    write_file(path_, text);
    ASSERT_EQ(vini_init(path_.c_str(), capture_log), 1);
    for (int i = 0; i < NCODES; i++)
      ASSERT_EQ(vini_add(i, kRows[i].cmd, kRows[i].dflt, kRows[i].type, "test"), 1);
    clear_captured();
    ASSERT_EQ(vini_reload(), 1);
  }

  std::string dir_;
  std::string path_;
};

// A file with one global section, one domain and one class.
inline const char* const kBasicFile =
    "global_settings\n"
    "\thome \"/srv/k\"\n"
    "vdomain address=\"\" name=\"main\"\n"
    "\temail \"admin@example.org\"\n"
    "\tclass type=\"real anonymous\" users=\"\" name=\"all\" class_name=\"everyone\"\n"
    "\t\tdir alias=\"/\" path=\"~\" read=\"true\" write=\"true\"\n"
    "\t\tdir alias=\"/pub\" path=\"/srv/pub\" read=\"on\"\n"
    "\t\tdir alias=\"/in\" path=\"/srv/in\" write=\"true\"\n"
    "\t\tlimit_users \"7\"\n";

}  // namespace korv::testing_vini
