// FTP command dispatch: the table of verbs, the checks every line passes
// (telnet bytes, arguments, the login gate) and the one reply path.
#include "server/ftp/cmd.h"

#include <cstdarg>
#include <cstring>

#include "base/fmt.h"
#include "base/str.h"
#include "base/tokens.h"
#include "base/webtext.h"
#include "common/emsg.h"
#include "net/tcp.h"
#include "server/ftp/cmd_file.h"
#include "server/ftp/cmd_small.h"
#include "server/ftp/cmd_tls.h"
#include "server/ftp/datachan.h"
#include "server/ftp/facts.h"
#include "server/ftp/listing.h"
#include "server/ftp/login.h"
#include "server/ftp/plog.h"
#include "server/ftp/transfer.h"
#include "server/session/link.h"

namespace korv {

// Verbs whose handlers come with later work answer through cmd_notimp.
const COMMANDS commands[] = {
    {"abor", 0, 9, 0, cmd_abor},
    {"auth", 1, 9, kCmdNoAuth, cmd_auth},
    {"acct", 1, 9, 0, cmd_acct},
    {"allo", 2, 2, 0, cmd_allo},
    {"appe", 2, 2, 0, cmd_appe},
    {"cdup", 0, 2, 0, cmd_cdup},
    {"cwd", 0, 2, 0, cmd_cwd},
    {"dele", 2, 2, 0, cmd_dele},
    {"rm", 2, 2, 0, cmd_dele},
    {"eprt", 0, 2, 0, cmd_eprt},
    {"epsv", 0, 2, 0, cmd_epsv},
    {"feat", 0, 2, kCmdNoAuth, cmd_feat},
    {"help", 0, 2, kCmdNoAuth, cmd_help},
    {"list", 0, 2, 0, cmd_list},
    {"mkd", 1, 2, 0, cmd_mkd},
    {"mdtm", 0, 2, 0, cmd_mdtm},
    {"mfct", 0, 2, 0, cmd_mfct},
    {"mfmt", 0, 2, 0, cmd_mfmt},
    {"mlst", 0, 2, 0, cmd_mlst},
    {"mlsd", 0, 2, 0, cmd_mlsd},
    {"mode", 2, 2, 0, cmd_mode},
    {"nlst", 0, 2, 0, cmd_nlst},
    {"noop", 0, 2, kCmdNoAuth, cmd_noop},
    {"opts", 0, 3, kCmdNoAuth, cmd_opts},
    {"pass", 1, 2, kCmdNoAuth, cmd_pass},
    {"pasv", 0, 2, 0, cmd_pasv},
    {"pbsz", 1, 9, kCmdNoAuth, cmd_pbsz},
    {"port", 1, 2, 0, cmd_port},
    {"prot", 1, 9, kCmdNoAuth, cmd_prot},
    {"pwd", 0, 2, 0, cmd_pwd},
    {"quit", 0, 3, kCmdNoAuth, cmd_quit},
    {"rest", 1, 2, 0, cmd_rest},
    {"retr", 1, 2, 0, cmd_retr},
    {"rmd", 1, 2, 0, cmd_rmd},
    {"rnfr", 1, 2, 0, cmd_rnfr},
    {"rnto", 1, 2, 0, cmd_rnto},
    {"site", 1, 9, 0, cmd_site},
    {"size", 0, 2, 0, cmd_size},
    {"sscn", 1, 2, kCmdNoAuth, cmd_sscn},
    {"stat", 0, 2, 0, cmd_stat},
    {"stor", 1, 2, 0, cmd_stor},
    {"stou", 2, 2, 0, cmd_stou},
    {"stru", 1, 2, 0, cmd_stru},
    {"syst", 0, 2, kCmdNoAuth, cmd_syst},
    {"type", 1, 2, 0, cmd_type},
    {"user", 1, 9, kCmdNoAuth, cmd_user},
    {"xcup", 0, 2, 0, cmd_cdup},
    {"xcwd", 0, 2, 0, cmd_cwd},
    {"xmkd", 1, 2, 0, cmd_mkd},
    {"xpwd", 0, 1, 0, cmd_pwd},
    {"xrmd", 1, 2, 0, cmd_rmd},
    {nullptr, 0, 0, 0, nullptr},
};

namespace {

// Telnet bytes a client may put before a command: data mark, interrupt
// process and interpret-as-command.
bool is_telnet_byte(unsigned char c) { return c == 0xF2 || c == 0xF4 || c == 0xFF; }

const COMMANDS* find_command(const std::string& verb) {
  for (const COMMANDS* c = commands; c->name != nullptr; c++) {
    if (verb == c->name) return c;
  }
  return nullptr;
}

}  // namespace

int cmd_do(LINK* l, const char* line) {
  const char* s = line;
  while (*s != 0 && is_telnet_byte(static_cast<unsigned char>(*s))) s++;
  if (s != line) imsg("skipped interrupt data\n");

  std::string xline(s, strnlen(s, kCmdLineMax));
  std::string show_line = xline;
  if (strncasecmp(xline.c_str(), "pass", 4) != 0) {
    plog(l, "<-- %.80s\n", xline.c_str());
    link_state_set(l, strfmt("%.400s\n", xline.c_str()));
  } else {
    // The password reaches neither a log nor the state text.
    plog(l, "<-- PASS ******\n");
    show_line = "PASS ****";
  }

  // The whole rest of the line after the first blank, for the rows whose
  // argument may hold blanks.
  std::string p1;
  size_t blank = xline.find(' ');
  if (blank != std::string::npos) {
    p1 = xline.substr(blank + 1);
    size_t eol = p1.find_first_of("\r\n");
    if (eol != std::string::npos) p1.resize(eol);
  }

  std::string split = xline;
  char* p[kArgSlots + 1] = {};
  int narg = token_split(split.data(), p, " \t\r\n", kSplitTokens);

  std::string first = xline;
  char* upto = nullptr;
  const char* tok = mystrtok(first.data(), " \t\r\n", &upto);
  if (tok == nullptr) {
    emsg("Blank line, thats odd\n");
    return 1;
  }
  std::string verb = str_lower(tok);
  static char empty[1] = "";
  p[narg] = empty;
  p[narg + 1] = empty;

  const COMMANDS* c = find_command(verb);
  if (c == nullptr) {
    cmd_write(l, "500 Unknown command (%.30s)\r\n", s);
    link_state_set(l, strfmt("Waiting, last command: %.80s\n", show_line.c_str()));
    return 1;
  }
  if (narg < c->minargs) {
    cmd_write(l, "500 Insufficient arguments, got %d need %d\r\n", narg, c->minargs);
    return 1;
  }
  if (c->maxargs == 2) {
    p[1] = p1.data();
    narg = 2;
  }
  if (narg > c->maxargs) {
    cmd_write(l, "500 Too many arguments got %d of %d\r\n", narg, c->maxargs);
    return 1;
  }
  if (l->needauth && (c->flags & kCmdNoAuth) == 0) {
    cmd_write(l, "530 User and pass still required\r\n");
    return 1;
  }
  link_state_set(l, strfmt("processing command: %.80s", show_line.c_str()));
  c->fn(l, p, narg, s);
  link_state_set(l, strfmt("Idle, last command: %.80s", show_line.c_str()));
  return 1;
}

void cmd_write(LINK* l, const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  std::string s = vstrfmt(format, ap);
  va_end(ap);
  if (s.size() > static_cast<size_t>(kReplyMax)) {
    emsg_do(0, "FATAL,WRITE INMSG ERROR TOO LONG\n");
    s.resize(kReplyMax);
  }
  // One call is one reply line: its line end is the final CR LF (or a bare
  // LF, as SITE UMASK has it); any other control byte can only come from
  // client text or a name quoted in the reply and goes out as a blank.
  size_t body = s.size();
  if (body > 0 && s[body - 1] == '\n') {
    body--;
    if (body > 0 && s[body - 1] == '\r') body--;
  }
  for (size_t i = 0; i < body; i++) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x20 || c == 0x7F) s[i] = ' ';
  }
  if (l->ipnum != "127.0.0.1") plog(l, "--> %.500s", s.c_str());
  if (l->c) tcp_printf(l->c.get(), "%s", s.c_str());
}

std::string cmd_getrest(const char* orig, int n) { return lib_get_rest(orig, n); }

int cmd_notimp(LINK* l, char** p, int, const char*) {
  cmd_write(l, "502 %.40s command not implemented\r\n", str_upper(p[0]).c_str());
  return 1;
}

int cmd_greetings(LINK* l) {
  std::string text = lib_cr_decode(ini_get(l, INI_GREETINGS));
  if (text.size() > 4999) text.resize(4999);
  if (text.empty()) return 0;
  std::vector<std::string> lines;
  Strlines v;
  str_lines_start(&v, text.data(), static_cast<int>(text.size()));
  while (const char* line = str_lines_next(&v)) lines.emplace_back(line);
  str_lines_end(&v);
  for (size_t i = 0; i < lines.size(); i++) {
    cmd_write(l, "220%c%.500s\r\n", i + 1 < lines.size() ? '-' : ' ', lines[i].c_str());
  }
  return 1;
}

// Children are reaped by their own pid where they were started; nothing here
// may collect another's child.
int ftp_release_all() { return 1; }

}  // namespace korv
