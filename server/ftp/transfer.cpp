// RETR, STOR, APPE, STOU, REST, TYPE and MODE, and the loops that move a
// file's bytes between the disk and the data channel. A transfer runs on the
// session's thread; once a second it looks at the control channel for ABOR.
#include "server/ftp/transfer.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <utility>

#include "base/files.h"
#include "base/fmt.h"
#include "base/str.h"
#include "common/emsg.h"
#include "common/emsg_files.h"
#include "net/spawn.h"
#include "net/splice.h"
#include "net/tcp.h"
#include "server/ftp/cmd.h"
#include "server/ftp/daily.h"
#include "server/ftp/datachan.h"
#include "server/ftp/ftpio.h"
#include "server/ftp/plog.h"
#include "server/ftp/speed.h"
#include "server/ftp/transfer_ascii.h"
#include "server/session/link.h"
#include "server/session/traffic.h"
#include "server/settings/ini.h"
#include "server/vfs/home.h"
#include "server/vfs/quota.h"
#include "server/vfs/vdir.h"
#include "server/vfs/vfile.h"

namespace korv {

namespace {

constexpr double kQuotaSlack = 1.05;  // an upload past 105% of the quota is deleted

void set_state(LINK* l, const char* verb, const std::string& name, const char* step) {
  link_state_set(l, strfmt("%s %.400s %s", verb, name.c_str(), step));
}

// Waits up to `ms` on the control channel, so that an ABOR cuts a pause short.
// 1 when the control channel has something to read.
int wait_on_control(LINK* l, int ms) {
  if (ms <= 0) return 0;
  if (!l->c) {
    poll(nullptr, 0, ms);
    return 0;
  }
  return tcp_need_read_attention(l->c.get(), ms);
}

// The state one transfer loop carries: its status text and the once-a-second
// abort poll.
struct XferRun {
  LINK* l;
  const char* status = nullptr;  // null while all goes well
  std::string status_text;       // holds a status made at run time
  time_t last_second;
  bool update = false;  // this pass is the first of a new second

  explicit XferRun(LINK* link) : l(link), last_second(time(nullptr)) {}

  // Called at the top of each pass; false when the transfer must stop.
  bool tick() {
    time_t now = time(nullptr);
    update = now != last_second;
    if (update) {
      last_second = now;
      l->sent = 0;
      if (!poll_abort()) return false;
    }
    if (l->closing) status = "Server Shutting down";
    return true;
  }

  void set_status(std::string text) {
    status_text = std::move(text);
    status = status_text.c_str();
  }

  // Runs the abort poll now; false (with the status) when the transfer must stop.
  bool poll_abort() {
    if (cmd_abort(l)) {
      status = l->done_abort ? "ABORT command received" : "Control connection closed";
      imsg("%s\n", status);
      return false;
    }
    return true;
  }
};

// Writes `len` bytes in blocks of block mode, the last one marked when `eof`.
// The bytes of data written, or less on failure.
int ftp_write_block(LINK* l, chan* c, const char* s, int len, bool eof) {
  int done = 0;
  do {
    int n = len - done > kBlockMax ? kBlockMax : len - done;
    unsigned char h[3];
    block_header(h, n, eof && done + n == len);
    if (simple_tcp_blocking_write(l, c, reinterpret_cast<const char*>(h), 3) != 3) return done;
    if (n > 0 && simple_tcp_blocking_write(l, c, s + done, n) != n) return done;
    done += n;
  } while (done < len);
  return done;
}

// Reads exactly `len` bytes (fewer at the peer's close, timeout or abort).
int read_exact(LINK* l, chan* c, char* s, int len, int twait) {
  int got = 0;
  while (got < len) {
    int r = simple_tcp_read_timed_blocking(l, c, s + got, len - got, twait);
    if (r < 1) return got > 0 ? got : r;
    got += r;
  }
  return got;
}

// Impersonation around one disk call, when global_nfs_impersonate asks for it.
struct NfsIdentity {
  LINK* l;
  bool on;
  explicit NfsIdentity(LINK* link) : l(link), on(ini_true(link, INI_GLOBAL_NFS_IMPERSONATE) != 0) {
    if (on) vdir_impersonate(l);
  }
  ~NfsIdentity() {
    if (on) vdir_revert(l);
  }
};

ssize_t write_all_fd(int fd, const char* s, size_t n) {
  size_t done = 0;
  while (done < n) {
    ssize_t w = ::write(fd, s + done, n - done);
    if (w < 0 && errno == EINTR) continue;
    if (w < 0) return done > 0 ? static_cast<ssize_t>(done) : -1;
    if (w == 0) break;
    done += static_cast<size_t>(w);
  }
  return static_cast<ssize_t>(done);
}

ssize_t read_fd(int fd, char* s, size_t n) {
  ssize_t r;
  do {
    r = ::read(fd, s, n);
  } while (r < 0 && errno == EINTR);
  return r;
}

}  // namespace

std::string xfer_line(LINK* l, long long seconds, long long bytes, const std::string& realname, const char* direction,
                      bool complete) {
  std::string file = realname;
  vdir_fixslash_os(file);
  const std::string& identity = l->useremail.empty() ? l->user : l->useremail;
  return strfmt("%d %.500s %s \"%.500s\" %.500s _ %.500s %.500s %.500s \"%.500s\" 0 %.500s %.500s\n",
                static_cast<int>(seconds), l->ipnum.c_str(), i64_to_cstr(bytes).c_str(), file.c_str(),
                l->isbin ? "b" : "a", direction, l->isanon ? "a" : "r", l->user.c_str(), identity.c_str(), "*",
                complete ? "c" : "i");
}

int simple_tcp_blocking_write(LINK* l, chan* c, const char* s, int len) {
  int done = 0;
  while (done < len) {
    int w = tcp_write_timed(c, s + done, len - done, kXferWaitMs);
    if (w > 0) {
      done += w;
      continue;
    }
    if (!tcp_blocking_error(c)) return done;
    // A second with the socket full: is the client still there, does it want out?
    if (cmd_abort(l)) return done;
  }
  return done;
}

namespace {

// Runs `read` (a timed read of kXferWaitMs on `c`) until it gives bytes, the
// end or a real failure; between tries it looks for an ABOR, and gives 0 after
// `twait` seconds (0: no limit) without data.
template <typename Read>
int read_timed_blocking(LINK* l, chan* c, int twait, Read read) {
  time_t start = time(nullptr);
  for (;;) {
    long long r = read();
    if (r >= 0) return static_cast<int>(r);
    if (!tcp_blocking_error(c)) return static_cast<int>(r);
    if (cmd_abort(l)) return 0;
    if (twait > 0 && time(nullptr) - start > twait) return 0;
  }
}

}  // namespace

int simple_tcp_read_timed_blocking(LINK* l, chan* c, char* s, int len, int twait) {
  return read_timed_blocking(l, c, twait, [&] { return tcp_read_timed(c, s, len, kXferWaitMs); });
}

int simple_tcp_read_blocking(LINK* l, chan* c, char* s, int len) {
  return simple_tcp_read_timed_blocking(l, c, s, len, 0);
}

int cmd_speed_up(LINK* l) { return speed_bytes(ini_get(l, INI_LIMIT_SPEED_UP)); }

void notify_watcher(const char* wpname, const char* realname, const char* mode, long long* x_filesize, LINK* l,
                    const char* transfer) {
  std::string size = i64_to_cstr(x_filesize ? *x_filesize : 0);
  imsg("Notifing Watcher Program - %s file(%s)(%s) bytes=%s\n", wpname, realname, mode, size.c_str());
  std::string cmdline = strfmt("%s \"file=%s\" \"bytes=%s\" \"user=%s\" \"userip=%s\" \"transfer=%s\"", wpname,
                               realname, size.c_str(), l->user.c_str(), l->ipnum.c_str(), transfer);
  // No shell and no splitting: a name with blanks or quotes is one argument.
  const std::vector<std::string> args = {strfmt("file=%s", realname), "bytes=" + size, "user=" + l->user,
                                         "userip=" + l->ipnum, strfmt("transfer=%s", transfer)};
  osspawn_info info;
  std::string reason;
  if (!libspawn_create_args(wpname, args, &reason, 0, &info)) {
    emsg("Launch Watcher Program Failed: {%s} ERROR - %s", cmdline.c_str(), reason.c_str());
    return;
  }
  for (int i = 0; i < kWatcherPolls; i++) {
    if (libspawn_is_process_finished(&info, 1.0, &reason)) {
      imsg("Launched Watcher Program (%d)- {%s}", info.pid, cmdline.c_str());
      return;
    }
  }
  emsg("Watcher Program has not ended yet pid:%d", info.pid);
  libspawn_reap_later(&info);
}

int cmd_rest(LINK* l, char** p, int, const char*) {
  l->restart = int64bit_atoi(p[1]);
  cmd_write(l, "350 Restarting at %s.\r\n", i64_to_cstr(l->restart).c_str());
  return 1;
}

int cmd_type(LINK* l, char** p, int, const char*) {
  std::string t = str_upper(p[1]);
  if (!t.empty() && t[0] == 'A') {
    l->isbin = 0;
    cmd_write(l, "200 Type set to A\r\n");
  } else if (!t.empty() && t[0] == 'I') {
    l->isbin = 1;
    cmd_write(l, "200 Type set to I\r\n");
  } else {
    cmd_write(l, "500 Type setting not understood (%.90s)\r\n", t.c_str());
  }
  return 1;
}

int cmd_mode(LINK* l, char** p, int, const char*) {
  std::string m = str_lower(p[1]);
  const char* modes = "sbc";
  const char* hit = m.empty() ? nullptr : std::strchr(modes, m[0]);
  if (hit) {
    // Compressed mode is accepted and moves bytes as stream mode does.
    l->mode = static_cast<int>(hit - modes);
    cmd_write(l, "200 Mode %.30s ok.\r\n", m.c_str());
  } else {
    cmd_write(l, "504 Mode %.30s not supported\r\n", m.c_str());
  }
  return 1;
}

int cmd_retr(LINK* l, char** p, int, const char*) {
  std::string virt(p[1], strnlen(p[1], kVirtMax));
  std::string reason, realname, vpath;
  const char* V = "retr";
  set_state(l, V, virt, "step1");
  if (!vexists(l, virt, reason)) {
    cmd_write(l, "550 %.500s: Cannot open file %.500s\r\n", virt.c_str(), reason.c_str());
    return 0;
  }
  FilePtr f;
  auto fail = [&]() {
    set_state(l, V, virt, "failed");
    if (f) vfclose(l, f, reason);
    ftp_end_datachan(l);
    set_state(l, V, virt, "dataclosed");
    return 1;
  };
  set_state(l, V, virt, "step2");
  if (!vdir_fname(realname, vpath, l, virt, reason)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", reason.c_str());
    emsg("Cant figure out alias's? (%.500s)\r\n", virt.c_str());
    return fail();
  }
  // The filter sees the resolved name: ".netrc/" and "./.netrc/." are .netrc.
  if (ini_noretrieve(l, vpath.c_str())) {
    cmd_write(l, "550 %.500s: Cannot retrieve file for security reasons\r\n", virt.c_str());
    emsg("Attempted security violation %.500s %.500s\n", l->user.c_str(), virt.c_str());
    return fail();
  }
  if (lib_stat_isdir(realname.c_str())) {
    cmd_write(l, "550 %.500s: not a plain file\r\n", virt.c_str());
    return 0;
  }
  set_state(l, V, virt, "step3");
  // The address's count is in units of 100 bytes.
  long long utot = 0;
  day_add(l->ipnum.c_str(), 0, &utot);
  int iplimit = ini_geti(l, INI_LIMIT_MB);
  if (iplimit > 0) {
    long long used = utot * kDayUnit;
    dmsg("Checking iplimit %sKb used of %d mb allowed\n", i64_to_cstr(used / 1000).c_str(), iplimit);
    if (used / 1000000 >= iplimit) {
      cmd_write(l, "550 %.500s: Cannot retrieve file as daily download limit exceeded\r\n", virt.c_str());
      imsg("Daily download limit exceeded %.500s %.500s %.500s %dmb/%dmb\n", l->ipname.c_str(),
           l->useremail.c_str(), virt.c_str(), static_cast<int>(used / 1000000), iplimit);
      return fail();
    }
  }
  if (!vfopen(l, virt, l->isbin ? "rb" : "r", f, reason)) {
    cmd_write(l, "550 %.500s: Cannot open file %.500s\r\n", virt.c_str(), reason.c_str());
    return fail();
  }
  const int fd = fileno(f.get());
  off_t offset = 0;
  if (l->isbin && l->restart != 0) {
    imsg("Seeking to restart point %s\n", i64_to_cstr(l->restart).c_str());
    offset = ::lseek(fd, static_cast<off_t>(l->restart), SEEK_SET);
    if (offset < 0) {
      imsg("Seek failed!! %s\n", errtext(errno).c_str());
      cmd_write(l, "550 File seek to offset FAILED\r\n");
      l->restart = 0;
      return fail();
    }
    l->restart = 0;
  }
  set_state(l, V, virt, "step4");
  long long filesize = i64_file_size(realname.c_str());
  const long long daily_limit = l->dailyquota;
  // The whole file is weighed once here; the loop then counts what is sent.
  const long long daily_before = get_user_daily_quota(l->user.c_str());
  if (daily_limit > 0 && daily_before + filesize > daily_limit) {
    cmd_write(l, "425 Transfer would exceed Daily limit of %d bytes\r\n", static_cast<int>(daily_limit));
    emsg("Transfer would exceed Daily limit of %d bytes\n", static_cast<int>(daily_limit));
    return fail();
  }
  set_state(l, V, virt, "step_data");
  std::string reason2;
  if (!ftp_open_datachan(l, reason2, p[1])) {
    cmd_write(l, "425 Can't build data connection: %.500s.\r\n", reason2.c_str());
    emsg("Can't build data connection: %.500s.\n", reason2.c_str());
    return fail();
  }
  set_state(l, V, virt, "step_data2");
  chan* c = l->cdata.get();
  tcp_out_bf_128k(c);
  SpeedDown speed(speed_bytes(ini_get(l, INI_LIMIT_SPEED)), getdtime());
  const time_t started = time(nullptr);
  // Ruling: a plain binary stream with no limit goes through sendfile.
  const bool use_sendfile = l->isbin && l->mode == 0 && speed.limit == 0 && !c->tcp->Ssl;
  const int io_size = speed.block(l->mode == 1 ? kBlockMax : kXferBlock * 4);
  std::unique_ptr<char[]> bfin(use_sendfile ? nullptr : new char[static_cast<size_t>(kXferBufSize)]);
  std::unique_ptr<char[]> bftmp(use_sendfile || l->isbin ? nullptr : new char[2 * static_cast<size_t>(kXferBufSize)]);
  long long tot = 0, written = 0;
  int nb = 0;
  bool eof_sent = false;  // block mode: the block marked last has gone
  XferRun run(l);
  set_state(l, V, virt, "fread");
  while (true) {
    if (time(nullptr) - started > kXferMaxSeconds) break;  // quiet: the client is told 226
    if (!run.tick()) break;
    long long r, w;
    if (use_sendfile) {
      set_state(l, V, virt, "tcp_write");
      r = tcp_sendfile(c, fd, &offset, kSendfileChunk, kXferWaitMs);
      if (r == 0) break;  // end of file
      if (r < 0) {
        if (tcp_blocking_error(c)) {
          if (!run.poll_abort()) break;
          continue;
        }
        run.status = "write data to data pipe failed";
        break;
      }
      w = r;
    } else {
      ssize_t got;
      {
        NfsIdentity id(l);
        got = read_fd(fd, bfin.get(), static_cast<size_t>(io_size));
      }
      if (got < 1) break;
      const bool eof = got < io_size;
      const char* out = bfin.get();
      r = got;
      if (!l->isbin) {
        r = static_cast<long long>(cvt_lf_crlf(bfin.get(), static_cast<size_t>(got), bftmp.get()));
        out = bftmp.get();
      }
      if (l->mode == 1) {
        w = ftp_write_block(l, c, out, static_cast<int>(r), eof);
        eof_sent = eof;
        nb++;
      } else {
        w = simple_tcp_blocking_write(l, c, out, static_cast<int>(r));
        if (w < r)
          imsg("tcp_write_timed failed %d/%d done  %.500s\n", static_cast<int>(w), static_cast<int>(r),
               tcp_error(c).c_str());
      }
    }
    written += w;
    if (daily_limit > 0 && daily_before + tot + r > daily_limit) {
      run.status = "Daily Quota Exceeded.";
      break;
    }
    l->sent += r;
    tot += r;
    l->idle_time_start = static_cast<int>(time(nullptr));
    if (w < r) {
      run.status = "write data to data pipe failed";
      break;
    }
    int ms = speed.wait_ms(tot, getdtime());
    // A pause under a speed limit still hears an ABOR at once.
    if (wait_on_control(l, ms) && !run.poll_abort()) break;
  }
  set_state(l, V, virt, "end_datachan");
  // A file that ended on a block's edge still gets its last-block mark.
  if (l->mode == 1 && !run.status && !eof_sent) ftp_write_block(l, c, "", 0, true);
  add_to_user_daily_quota(l->user.c_str(), tot);
  day_add(l->ipnum.c_str(), tot, &utot);
  imsg("Wrote %s/%s bytes %d blocks, users ip %s total %dKb\n", i64_to_cstr(written).c_str(),
       i64_to_cstr(tot).c_str(), nb, l->ipnum.c_str(), static_cast<int>(utot * kDayUnit / 1000));
  if (!vfclose(l, f, reason)) imsg("Failed to close file in read mode? (%s)", reason.c_str());
  if (run.status) {
    imsg("Data connection lost\n");
    if (l->done_abort) {
      cmd_write(l, "426 ABORT command received.\r\n");
    } else {
      std::string err = tcp_error(c);
      cmd_write(l, "425 Data connection lost. %.500s\r\n", err.c_str());
      imsg("425 Data connection lost. %.500s\r\n", err.c_str());
    }
  } else {
    cmd_write(l, "226 Transfer complete.\r\n");
    const char* wp = ini_get(l, INI_GLOBAL_WATCHER_PROGRAM_DL);
    if (wp && *wp) notify_watcher(wp, realname.c_str(), "r", &tot, l, "downloaded");
  }
  ftp_end_datachan(l);
  xlog(l, "%s", xfer_line(l, time(nullptr) - started, tot, realname, "o", run.status == nullptr).c_str());
  traffic_add("o", tot, time(nullptr));
  set_state(l, V, virt, "dataclosed");
  return 1;
}

int cmd_stor(LINK* l, char** p, int, const char*) { return cmd_stor_do(l, p[1], 0); }

int cmd_appe(LINK* l, char** p, int np, const char* orig) {
  // Once set, every later STOR of the session appends.
  l->append = 1;
  return cmd_stor(l, p, np, orig);
}

int cmd_stor_do(LINK* l, const char* fname, int isunique) {
  SpeedUp speed;
  speed.limit = cmd_speed_up(l);
  dmsg("STOR %.300s\n", fname);
  std::string name(fname);
  std::string realname, vpath, reason;
  // The length first: a name this long gets this answer, not the failure of
  // its translation.
  if (name.size() >= kVdirPathMax) {
    cmd_write(l, "501 %.500s: Max path length exceeded %d\r\n", fname, static_cast<int>(kVdirPathMax));
    return 0;
  }
  if (!vdir_fname(realname, vpath, l, name, reason)) {
    cmd_write(l, "550 Cant figure out alias's (%.500s)\r\n", reason.c_str());
    return 0;
  }
  std::string qfile;
  cmd_quota_file(l, qfile);
  if (qfile == realname) {
    cmd_write(l, "501 sorry cannot store quota file\r\n");
    return 0;
  }
  if (ini_noupload(l, vpath.c_str())) {
    cmd_write(l, "550 %.500s: Cannot allow upload of file for security reasons\r\n", fname);
    emsg("Attempted security violation %.500s %.500s\n", l->user.c_str(), fname);
    return 0;
  }
  std::string mode = "w";
  if (l->append) {
    mode = "a";
  } else if (l->restart > 0) {
    mode = "r+";
    imsg("restart so using mode 'r+'\n");
  }
  if (l->isbin) mode += "b";
  std::string checked;
  long long q = 0;
  if (!pre_vfopen_check_all(l, name, mode.c_str(), reason, checked, &q)) {
    emsg("Check Open failed %.500s\n", reason.c_str());
    cmd_write(l, "550 %.500s: %.500s\r\n", fname, reason.c_str());
    ftp_end_datachan(l);
    return 0;
  }
  // A restart past the end would leave a hole: bytes on disk that no client
  // sent and that a quota would not see coming.
  if (l->restart > 0 && l->restart > i64_file_size(checked.c_str())) {
    l->restart = 0;
    cmd_write(l, "554 Restart offset beyond end of file\r\n");
    ftp_end_datachan(l);
    return 0;
  }
  long long daily_limit = l->dailyquota;
  long long daily_used = get_user_daily_quota(l->user.c_str());
  if (!ftp_open_datachan(l, reason, fname)) {
    cmd_write(l, "425 Can't build data connection: %.500s\r\n", reason.c_str());
    emsg("Can't build data connection: %.500s.\n", reason.c_str());
    return 0;
  }
  chan* c = l->cdata.get();
  tcp_in_bf_128k(c);
  // A plain binary stream with no limit goes from the socket to the file
  // through a kernel pipe, the upload's counterpart of sendfile. Not for
  // appends: the kernel does not splice into a file opened to append.
  std::unique_ptr<SpliceIn> pipe;
  if (l->isbin && l->mode == 0 && speed.limit == 0 && !c->tcp->Ssl && !l->append &&
      !ini_true(l, INI_GLOBAL_NFS_IMPERSONATE)) {
    pipe = std::make_unique<SpliceIn>();
    if (!pipe->ok()) pipe.reset();
  }
  FilePtr f;
  if (!vfopen(l, name, mode.c_str(), f, reason)) {
    emsg("Open failed %.500s\n", reason.c_str());
    cmd_write(l, "550 %.500s: %.500s\r\n", fname, reason.c_str());
    ftp_end_datachan(l);
    return 0;
  }
  const int fd = fileno(f.get());
  if (l->restart != 0) {
    imsg("Seeking to position %s\n", i64_to_cstr(l->restart).c_str());
    if (::lseek(fd, static_cast<off_t>(l->restart), SEEK_SET) < 0) imsg("lseek failed\n");
    l->restart = 0;
  }
  // The quota counts how far the file's end moves, so that overwritten bytes
  // count nothing and any hole counts whole.
  off_t file_end = 0;
  {
    struct stat st {};
    if (::fstat(fd, &st) == 0) file_end = st.st_size;
  }
  auto count_growth = [&]() {
    const off_t at = ::lseek(fd, 0, SEEK_CUR);
    if (at > file_end) {
      vquota_add(l, static_cast<long long>(at - file_end));
      file_end = at;
    }
  };
  const time_t started = time(nullptr);
  std::unique_ptr<char[]> buffer(pipe ? nullptr : new char[static_cast<size_t>(kXferBufSize) + 1]);
  std::unique_ptr<char[]> conv(l->isbin ? nullptr : new char[static_cast<size_t>(kXferBufSize) + 2]);
  CrlfToLf crlf;
  long long bytes_written = 0;
  int r = 0;
  XferRun run(l);
  // Writes `n` bytes to the file (converted in ASCII); false ends the loop.
  auto to_file = [&](const char* data, int n) {
    const char* out = data;
    size_t len = static_cast<size_t>(n);
    if (!l->isbin) {
      len = crlf.run(data, len, conv.get());
      out = conv.get();
    }
    ssize_t w;
    {
      NfsIdentity id(l);
      w = write_all_fd(fd, out, len);
    }
    if (w != static_cast<ssize_t>(len)) {
      emsg("error writing to file %s, %d/%d bytes writen", realname.c_str(), static_cast<int>(w),
           static_cast<int>(len));
      if (w == -1) run.set_status(errtext(errno));
      return false;
    }
    return true;
  };
  bool eof_block = false;
  while (true) {
    if (!run.tick()) break;
    if (l->mode == 1) {
      unsigned char h[3];
      r = read_exact(l, c, reinterpret_cast<char*>(h), 3, kBlockHeaderWaitMs / 1000);
      if (r < 1) break;
      if (r < 3) {
        run.status = "Not all bytes received in packet";
        break;
      }
      int len = block_header_len(h);
      if (len > kBlockInMax) break;
      eof_block = (h[0] & kBlockEof) != 0;
      r = 0;
      if (len > 0) {
        r = read_exact(l, c, buffer.get(), len, kBlockDataWaitMs / 1000);
        if (r < len) {
          run.status = "Not all bytes received in packet";
          if (r < 0) r = 0;
          break;
        }
        if (!to_file(buffer.get(), r)) break;
      }
    } else if (pipe) {
      long long landed = 0;
      int file_err = 0;
      r = read_timed_blocking(l, c, kStorIdleSeconds,
                              [&] { return pipe->move(c, fd, kXferWaitMs, &landed, &file_err); });
      if (r < 1) {
        if (l->done_abort) run.status = "ABORT command received";
        break;
      }
      if (landed != r) {
        emsg("error writing to file %s, %d/%d bytes writen", realname.c_str(), static_cast<int>(landed), r);
        if (file_err != 0) run.set_status(errtext(file_err));
        break;
      }
    } else {
      int ms = speed.wait_ms(getdtime());
      if (ms > 0 && wait_on_control(l, ms) && !run.poll_abort()) break;
      if (ms > 0) continue;
      // Under a limit no read takes more than a second's budget.
      int want = speed.limit > 0 && speed.limit < kXferBufSize ? speed.limit : kXferBufSize;
      r = simple_tcp_read_timed_blocking(l, c, buffer.get(), want, kStorIdleSeconds);
      speed.add(r > 0 ? r : 0, getdtime());
      if (r < 1) {
        if (l->done_abort) run.status = "ABORT command received";
        break;
      }
      if (!to_file(buffer.get(), r)) break;
    }
    if (r > 0) {
      daily_used += r;
      if (daily_limit > 0 && daily_used > daily_limit) {
        run.status = "Daily Quota Exceeded.";
        break;
      }
      count_growth();
      l->idle_time_start = static_cast<int>(time(nullptr));
    }
    bytes_written += r;
    if (eof_block) break;
    if (l->quota > 0 && static_cast<double>(l->quota_was + l->quota_change) > l->quota * kQuotaSlack) {
      run.status = "Quota Exceeded.";
      break;
    }
  }
  // A CR that ended the upload is data, not half of a line end.
  if (!l->isbin && crlf.holding()) {
    char cr;
    if (crlf.finish(&cr) == 1 && write_all_fd(fd, &cr, 1) == 1) count_growth();
  }
  add_to_user_daily_quota(l->user.c_str(), bytes_written);
  if (r < 0) run.set_status(tcp_error(c));
  // Many clients end a TLS upload by closing TCP; every byte before it counts.
  if (c->tcp->UncleanEnd) dmsg("TLS data connection ended without close_notify\n");
  ftp_end_datachan(l);
  if (std::fflush(f.get()) == -1) run.status = "File may not have been written to disk correctly, check disk full? disk errors?";
  long long filesize = i64_file_size(realname.c_str());
  if (!vfclose(l, f, reason)) {
    emsg("File Close Failed %.500s\n", reason.c_str());
    run.status = "Error closing file, writing data to disk.";
  }
  if (l->quota > 0) {
    long long used = l->quota_was + l->quota_change;
    if (l->quota < used) run.status = "Quota Exceeded - Please remove files.";
    if (static_cast<double>(used) > l->quota * kQuotaSlack) {
      run.status = "Quota Exceeded - File Deleted.";
      std::string e2;
      vremove(l, name, e2);
    }
  }
  if (!run.status) {
    dmsg("Received file %.500s ok\n", fname);
    const char* wp = ini_get(l, INI_GLOBAL_WATCHER_PROGRAM_UL);
    if (wp && *wp) notify_watcher(wp, realname.c_str(), mode.c_str(), &filesize, l, "uploaded");
  }
  if (isunique == 0) {
    if (run.status)
      cmd_write(l, "426 Transfer failed. %.500s %s\r\n", fname, run.status);
    else
      cmd_write(l, "226 Transfer complete. %.500s\r\n", fname);
  }
  xlog(l, "%s", xfer_line(l, time(nullptr) - started, filesize, realname, "i", run.status == nullptr).c_str());
  traffic_add("i", filesize, time(nullptr));
  dmsg("stor - finished cmd\n");
  return 1;
}

int cmd_stou(LINK* l, char** p, int, const char*) {
  std::string name, etext;
  for (int i = 0; i <= kStouMax; i++) {
    name = i == 0 ? std::string(p[1]) : strfmt("%.400s.%d", p[1], i);
    if (i > kStouWarn) emsg("Ran out of unique names %.400s\n", p[1]);
    if (!vexists(l, name, etext)) break;
  }
  if (cmd_stor_do(l, name.c_str(), 1))
    cmd_write(l, "226 Transfer complete (unique file name:%.500s).\r\n", name.c_str());
  return 1;
}

}  // namespace korv
