// The FTP session: admission checks in their order, the greeting, and the
// read-and-run loop until QUIT, a timeout, a closed channel or shutdown.
#include "server/ftp/session.h"

#include <atomic>
#include <cstring>
#include <ctime>
#include <string>

#include "base/fmt.h"
#include "common/emsg.h"
#include "common/mutex.h"
#include "net/ssltcp.h"
#include "net/tcp.h"
#include "net/tls.h"
#include "server/ftp/cmd.h"
#include "server/ftp/ftpio.h"
#include "server/session/link.h"
#include "server/session/runstate.h"
#include "server/session/threadlist.h"
#include "server/settings/ini.h"
#include "server/vfs/quota.h"
#include "server/vfs/vdir.h"

namespace korv {
namespace {

std::atomic<bool> limit_logged{false};

// The client's name for its number; the number stays when there is none.
void dns_getname(const std::string& ipnum, std::string& ipname) {
  std::string name;
  if (SSLTCP_ip_to_name(ipnum.c_str(), name)) ipname = name;
}

// Lets a refused client read its reply before the socket closes: returns as
// soon as the client closes or sends, at the latest after `ms`.
void let_reply_leave(LINK* l, int ms) {
  if (l->c) tcp_need_read_attention(l->c.get(), ms);
}

// Admission from the channel's addresses to the greeting. 1 when the session
// may go on to its loop.
int admit(LINK* l) {
  double t_start = getdtime();
  time_t now = time(nullptr);
  if (l->get_accept + 1 < now) {
    imsg("time from accept to start processing ftp is %d seconds.\n", static_cast<int>(now - l->get_accept));
  } else {
    dmsg("time from accept to start processing ftp is %d seconds.\n", static_cast<int>(now - l->get_accept));
  }
  Chan* c = l->c.get();
  tcp_set_nodelay(c, 1);

  char ip[64] = "";
  tcp_getip(c, ip);
  l->ipname = ip;
  l->ipnum = l->ipname.substr(0, 100);
  char my[64] = "";
  if (!tcp_getipandports(c, my, nullptr, nullptr, nullptr)) {
    cmd_write(l, "550 I cant get my IP address!\r\n");
    return 0;
  }
  l->myip = my;
  if (ini_true(nullptr, INI_GLOBAL_LOOKUP_NAMES)) {
    time_t t0 = time(nullptr);
    dns_getname(l->ipnum, l->ipname);
    imsg("dns_getname %.500s %.500s took %d seconds\n", l->ipname.c_str(), l->ipnum.c_str(),
         static_cast<int>(time(nullptr) - t0));
  }
  int lcl = 0;
  int rmt = 0;
  tcp_getports(c, &lcl, &rmt);
  dmsg("Local port %d, remote %d\n", lcl, rmt);
  if (lcl < 1) emsg("Cant get port info, Local port %d, remote %d\n", lcl, rmt);
  l->port = static_cast<unsigned short>(rmt);
  l->lclport = static_cast<unsigned short>(lcl - 1);
  l->to = l->ipnum.substr(0, 25);
  l->cur_umask = 022;

  double t_now = getdtime();
  Entropy_Gather_shortint(static_cast<short>(lcl));
  Entropy_Gather_shortint(static_cast<short>(rmt));
  Entropy_Gather_cstr(l->ipname.c_str());
  Entropy_Gather_cstr(l->myip.c_str());
  Entropy_Gather_double(t_start);
  Entropy_Gather_double(t_now);
  Entropy_Gather_int(static_cast<int>((t_now - t_start) * 1000));

  if (l->ssl_implicit) {
    l->ssl_data = l->ssl_con = 1;
    dmsg("Implicit connection Enabling SSL\r\n");
    std::string reason;
    if (!new_tcp_ssl_init(c, korv_main_ssl_get_ftpconn(), 1, reason)) {
      cmd_write(l, "550 SSL Fail (%.500s)\r\n", reason.c_str());
      return 0;
    }
  }
  if (l->myip == "0.0.0.0") {
    dmsg("Invalid IP address 0.0.0.0 for local machine.\r\n");
    return 0;
  }
  if (!ini_setdomain(l, l->myip.c_str())) {
    dmsg("Local IP address (%s) not set in korvane config Create a domain for this IP.\r\n", l->myip.c_str());
    cmd_write(l, "550 There is no place for you to log in. Create domain for IP %s.\r\n", l->myip.c_str());
    return 0;
  }
  std::string reason;
  if (ini_deny(l, reason)) {
    cmd_write(l, "550 %.500s (%.500s)\r\n", reason.c_str(), l->ipname.c_str());
    return 0;
  }
  int perip = ini_geti(nullptr, INI_GLOBAL_CON_PERIP);
  if (perip != 0 && link_sameip(l) > perip) {
    std::string text =
        strfmt("Sorry, too many connections from your IP, setting GLOBAL_CON_PERIP, max %d.", perip);
    if (text.size() > static_cast<size_t>(kPerIpTextMax)) text.resize(kPerIpTextMax);
    cmd_write(l, "550 Login failed - %.500s\r\n", text.c_str());
    imsg("Rejected user %.500s %.500s\n", l->user.c_str(), text.c_str());
    return 0;
  }

  dmsg("Korvane %s, User connected (%s) (%s)\n", KORV_VERSION, l->ipname.c_str(), l->myip.c_str());
  const char* greetings = ini_get(l, INI_GREETINGS);
  if (greetings == nullptr || *greetings == 0 || !cmd_greetings(l)) {
    cmd_write(l, "220 Korvane %.500s (Version %.500s)\r\n", ini_get_p(l, INI_VDOMAIN, "name"), KORV_VERSION);
  }
  return 1;
}

// Reads and runs lines until the session ends.
void session_loop(LINK* l) {
  for (;;) {
    if (!tcp_process(l)) {
      imsg("main: tcp_process1 broke\r\n");
      break;
    }
    if (l->closing) {
      imsg("main: closing channel, user %s\r\n", l->user.c_str());
      break;
    }
    if (!tcp_readmore(l, kReadWaitMs, 1)) {
      if (!l->c) {
        imsg("cmd: readmore failed (Channel is closed)\n");
      } else {
        imsg("main: readmore failed (%s)\n", tcp_error(l->c.get()).c_str());
      }
      break;
    }
    if (!tcp_process(l)) {
      imsg("main: tcp_process2 broke\r\n");
      break;
    }
    if (l->closing) {
      imsg("main: closing channel, user %s\r\n", l->user.c_str());
      break;
    }
  }
}

}  // namespace

int get_exceed_users(int* limit) {
  int max = ini_geti(nullptr, INI_GLOBAL_TOTAL_USERS);
  if (!limit_logged.exchange(true)) imsg("Concurrent user limit is set to %d\n", max);
  if (limit != nullptr) *limit = max;
  MutexHold hold(MUTEX_CURRENT_CONNECTIONS);
  return total_logged_in_users() > max ? 1 : 0;  // the count holds this session
}

int ftp_main(LINK* l) {
  total_add_user();
  int limit = 0;
  if (get_exceed_users(&limit)) {
    imsg("disallowing connecion because upper limit reached.");
    cmd_write(l, "500 too many users (%d), try again soon\r\n", limit);
    let_reply_leave(l, kRefuseWaitMs);
    total_remove_user();
    ftp_release_all();
    return 1;
  }
  l->idle_time_start = static_cast<int>(time(nullptr));
  l->idle_time_limit = kAdmitLimitMinutes;
  if (!l->c) {
    emsg("Thread passed null in ftp_main, thats odd\n");
    return 0;
  }
  if (admit(l)) {
    l->root.clear();
    l->idle_time_start = static_cast<int>(time(nullptr));
    int minutes = ini_geti(l, INI_LIMIT_TIME);
    l->idle_time_limit = minutes != 0 ? minutes : kIdleDefaultMinutes;
    session_loop(l);
    cmd_quota_write(l);
  }
  // A pooled thread must not carry this user's identity into its next session.
  if (l->impersonate > 0) {
    emsg("Session ended under the user's identity (depth %d)\n", l->impersonate);
    l->impersonate = 1;
    vdir_revert(l);
  }
  total_remove_user();
  ftp_release_all();
  return 1;
}

}  // namespace korv
