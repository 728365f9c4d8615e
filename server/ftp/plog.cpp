// The per-domain session logs: one stream per log for the whole process,
// following the domain of the last session that wrote, under lock PLOG.
#include "server/ftp/plog.h"

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>

#include <strings.h>

#include "base/dates.h"
#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "common/mutex.h"
#include "server/session/link.h"
#include "server/settings/ini.h"

namespace korv {
namespace {

// One session log: its stream, the path it is open on and its counted size.
// Touched only under PLOG.
struct SessionLog {
  explicit SessionLog(const char* fname) : file(fname) {}
  const char* file;  // name inside the domain directory
  LogFile f;
  std::string name;  // path of the open stream
  std::string domain;  // the domain name `name` was made for
  long size = 0;     // bytes counted towards the roll
};

SessionLog fplog{"cmds.log"};
SessionLog flogin{"login.log"};
SessionLog fxlog{"xfer.log"};
std::atomic<bool> fxlog_flush{false};

// The text of a log call, cut to kPlogLineMax bytes.
std::string format_line(const char* format, va_list ap) {
  std::string s = vstrfmt(format, ap);
  if (s.size() > static_cast<size_t>(kPlogLineMax)) {
    emsg_do(0, "FATAL, INMSG ERROR TOO LONG\n");
    s.resize(kPlogLineMax);
  }
  return s;
}

// "client user text", as the command and login logs show a session.
std::string with_names(LINK* l, const std::string& text) {
  std::string s = strfmt("%s %s %s", l != nullptr ? l->ipname.c_str() : "",
                         l != nullptr ? l->user.c_str() : "", text.c_str());
  if (s.size() > static_cast<size_t>(kPlogLineMax)) s.resize(kPlogLineMax);
  return s;
}

// Opens the log of the session's domain, closing the stream first if the
// last writer was in another domain. 1, or 0 when the file cannot be opened.
int log_open(SessionLog& g, LINK* l, bool take_size) {
  // While the stream is open (the idle tick closes it), a writer of the same
  // domain needs no new path: most commands of a busy server pass here.
  const char* dname = l != nullptr && l->ini != nullptr ? ini_get_p(l, INI_VDOMAIN, "name") : nullptr;
  if (dname == nullptr) dname = "";
  if (g.f.is_open() && g.domain == dname) return 1;
  std::string path;
  link_log_file(l, g.file, path);
  g.domain = dname;
  if (path != g.name) g.f.close();
  if (g.f.is_open()) return 1;
  if (!g.f.open(path, "a") && !g.f.open_making_dir(path, "a")) {
    emsg("Could not append to (%.500s) %.500s\n", path.c_str(), errtext(errno).c_str());
    g.name.clear();
    return 0;
  }
  if (take_size) g.size = g.f.size();
  g.name = path;
  return 1;
}

// Closes the full log and keeps one old generation under `old`.
void roll(SessionLog& g, const std::string& old) {
  g.f.close();
  g.size = 0;
  if (remove(old.c_str()) != 0) imsg("remove failed %s", old.c_str());
  if (rename(g.name.c_str(), old.c_str()) != 0) imsg("rename failed %s", g.name.c_str());
}

int plog_do(LINK* l, const std::string& text) {
  if (!log_open(fplog, l, true)) return 0;
  long limit = nice_atoi(ini_get(nullptr, INI_LOG_CMD_SIZE));
  if (limit == 0) limit = kPlogDefaultRoll;
  fplog.size += static_cast<long>(text.size());
  fprintf(fplog.f.fp(), "%.500s: %.500s", emsg_time().c_str(), text.c_str());
  if (fplog.size > limit) roll(fplog, strfmt("%s2", fplog.name.c_str()));
  imsg("%.500s", text.c_str());
  return 1;
}

int plogin_do(LINK* l, const std::string& text) {
  // The count runs from what this process wrote, not from the file's size.
  if (!log_open(flogin, l, false)) return 0;
  flogin.size += static_cast<long>(text.size());
  fprintf(flogin.f.fp(), "%.500s: %.500s", emsg_time().c_str(), text.c_str());
  if (flogin.size > kLoginLogRoll) roll(flogin, strfmt("%s_2", flogin.name.c_str()));
  return 1;
}

int xlog_do(LINK* l, const std::string& text) {
  if (!log_open(fxlog, l, false)) return 0;
  time_t now = time(nullptr);
  char stamp[32];
  if (safe_ctime(&now, stamp) == nullptr) stamp[0] = 0;
  fprintf(fxlog.f.fp(), "%.24s %.500s", stamp, text.c_str());
  if (fxlog_flush.load()) fflush(fxlog.f.fp());
  return 1;
}

// Runs one write under PLOG; a line that cannot get the lock is dropped.
void locked(int (*fn)(LINK*, const std::string&), LINK* l, const std::string& text) {
  if (!mutex_wait_timeoutx(MUTEX_PLOG, kPlogLockSeconds, __FILE__, __LINE__)) return;
  fn(l, text);
  mutex_release(MUTEX_PLOG);
}

int close_locked(SessionLog& g) {
  if (!mutex_wait_timeoutx(MUTEX_PLOG, kPlogLockSeconds, __FILE__, __LINE__)) return 0;
  g.f.close();
  mutex_release(MUTEX_PLOG);
  return 1;
}

}  // namespace

void plog(LINK* l, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = format_line(format, ap);
  va_end(ap);
  std::string line = log_escape(with_names(l, text));
  syslog_cmds(line.c_str());
  locked(plog_do, l, line);
}

void login_log(LINK* l, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = format_line(format, ap);
  va_end(ap);
  locked(plogin_do, l, log_escape(with_names(l, text)));
}

void xlog(LINK* l, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string text = format_line(format, ap);
  va_end(ap);
  locked(xlog_do, l, log_escape(text));
}

int plog_flush() { return close_locked(fplog); }
int plogin_flush() { return close_locked(flogin); }
int xlog_flush() { return close_locked(fxlog); }

int plog_flush_all() {
  int a = plog_flush();
  int b = plogin_flush();
  int c = xlog_flush();
  return a && b && c ? 1 : 0;
}

void set_fx_log_flush(int truth) {
  fxlog_flush = truth != 0;
  if (truth) xlog_flush();
}

int xlog_rotate_one_at(const char* dom, int max_age, time_t now) {
  if (max_age == 0) max_age = kLogMaxAgeDefault;
  std::string name = (dom == nullptr || *dom == 0) ? std::string("default") : str_lower(dom);
  std::string path;
  ini_domain_log_file(path, name.c_str(), "xfer.log");
  std::string yesterday = emsg_fname_date_at(path, now - 86400, now);
  if (rename(path.c_str(), yesterday.c_str()) != 0 && errno != ENOENT) {
    imsg("rename failed %s", path.c_str());
  }
  for (int age : {max_age, max_age + 1}) {
    std::string old = emsg_fname_date_at(path, now - static_cast<time_t>(age) * 86400, now);
    imsg("Removing max_age log file %d %.500s\n", age, old.c_str());
    remove(old.c_str());
  }
  return 1;
}

int xlog_rotate_one(const char* dom, int max_age) {
  return xlog_rotate_one_at(dom, max_age, time(nullptr));
}

int xlog_rotate_all() {
  if (!mutex_wait_timeoutx(MUTEX_PLOG, kPlogLockSeconds, __FILE__, __LINE__)) return 0;
  xlog_flush();
  {
    IniHandlePtr h = vini_handle();
    vini_lock();
    if (h) {
      INITABLE* keep = h->tbl;
      // Pointing the handle at each domain in turn is safe under the lock.
      for (const auto& d : vini_domains()) {
        h->tbl = d.get();
        h->cls = nullptr;
        xlog_rotate_one(vini_get_p(h.get(), INI_VDOMAIN, "name"), vini_geti(h.get(), INI_LOG_MAX_AGE));
      }
      h->tbl = keep;
      h->cls = nullptr;
    }
    vini_unlock();
  }
  if (strcasecmp(ini_get(nullptr, INI_LOG_DAYLY_ROLL), "true") == 0) {
    imsg("dayly rollover korvane.log now.\n");
    emsg_dayly_logging_rotate();
  }
  mutex_release(MUTEX_PLOG);
  return 1;
}

void data_log(const char* s, int len) {
  static std::mutex m;
  static LogFile f;
  std::lock_guard<std::mutex> hold(m);
  if (!f.is_open() && !f.open("data.log", "a")) return;
  if (len > 0) fwrite(s, 1, static_cast<size_t>(len), f.fp());
  fflush(f.fp());
}

}  // namespace korv
