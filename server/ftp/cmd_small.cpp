// The small FTP handlers: replies that need nothing beyond the session record
// and the settings.
#include "server/ftp/cmd_small.h"

#include <strings.h>

#include <cstring>
#include <string>

#include "base/fmt.h"
#include "base/str.h"
#include "net/tcp.h"
#include "net/tls.h"
#include "server/ftp/cmd.h"
#include "server/ftp/cmd_file.h"
#include "server/ftp/facts.h"
#include "server/ftp/listing.h"
#include "server/ftp/plog.h"
#include "server/session/link.h"
#include "server/session/runstate.h"

namespace korv {

int cmd_noop(LINK* l, char**, int, const char*) {
  cmd_write(l, "200 NOOP command successful.\r\n");
  return 1;
}

int cmd_syst(LINK* l, char**, int, const char*) {
  if (l->dirstyle) {
    cmd_write(l, "215 Windows_NT version 4.0\r\n");
  } else {
    cmd_write(l, "215 UNIX Type: L8\r\n");
  }
  return 1;
}

int cmd_quit(LINK* l, char**, int, const char*) {
  cmd_write(l, "221 Closing connection - goodbye!\r\n");
  l->closing = 1;
  // Give the reply time to leave: most clients close at once on it.
  if (l->c) tcp_need_read_attention(l->c.get(), kQuitWaitMs);
  return 1;
}

int cmd_abor(LINK* l, char**, int, const char*) {
  if (l->done_abort) {
    cmd_write(l, "226 Abort successful\r\n");
    l->done_abort = 0;
  } else {
    cmd_write(l, "225 ABOR command successful.\r\n");
  }
  return 1;
}

int cmd_acct(LINK* l, char** p, int, const char*) {
  cmd_write(l, "502 %.40s command not implemented.\r\n", str_upper(p[0]).c_str());
  return 1;
}

int cmd_allo(LINK* l, char**, int, const char*) {
  cmd_write(l, "202 ALLO command ignored.\r\n");
  return 1;
}

int cmd_stru(LINK* l, char** p, int, const char*) {
  std::string word = str_lower(p[1]);
  if (word[0] == 'f') {
    cmd_write(l, "200 STRU %.90s ok.\r\n", word.c_str());
  } else {
    cmd_write(l, "504 Unimplemented STRU type\r\n");
  }
  return 1;
}

int cmd_help(LINK* l, char** p, int np, const char*) {
  if (strcasecmp(p[1], "site") == 0) return cmd_site_help(l, p[2], np);
  static const char* const lines[] = {
      "214-The following commands are recognized (* =>'s unimplemented).\r\n",
      "   USER    PORT    STOR    MSAM*   RNTO    NLST    MKD     CDUP\r\n",
      "   PASS    PASV    APPE    MRSQ*   ABOR    SITE    XMKD    XCUP\r\n",
      "   ACCT*   TYPE    MLFL*   MRCP*   DELE    SYST    RMD     STOU\r\n",
      "   SMNT*   STRU    MAIL*   ALLO    CWD     STAT    XRMD    SIZE\r\n",
      "   REIN*   MODE    MSND*   REST    XCWD    HELP    PWD     MDTM\r\n",
      "   QUIT    RETR    MSOM*   RNFR    LIST    NOOP    XPWD\r\n",
  };
  for (const char* line : lines) cmd_write(l, "%s", line);
  cmd_write(l, "214 Direct comments to %.500s\r\n", ini_get(nullptr, INI_EMAIL));
  return 1;
}

int cmd_feat(LINK* l, char**, int, const char*) {
  cmd_write(l, "211-Extensions supported:\r\n");
  cmd_write(l, " MDTM\r\n");
  std::string facts;
  cmd_write(l, " MLST %.*s\r\n", kFeatFactsArg, fact_showoptions(l->facts, facts, 1).c_str());
  for (const char* f : {" PASV\r\n", " REST STREAM\r\n", " SSCN\r\n", " SIZE\r\n", " TVFS\r\n",
                        " EPRT\r\n", " EPSV\r\n", " AUTH TLS\r\n", " PBSZ\r\n", " PROT\r\n",
                        " MFMT\r\n"}) {
    cmd_write(l, "%s", f);
  }
  if (ini_true(nullptr, INI_GLOBAL_UTF8)) cmd_write(l, " UTF8\r\n");
  cmd_write(l, "211 End.\r\n");
  return 1;
}

int cmd_stat(LINK* l, char** p, int, const char*) {
  if (*p[1] != 0) {
    cmd_write(l, "213-status of %s:\r\n", p[1]);
    cmd_list_do(l, p[1], 1);
    cmd_write(l, "213 End of status\r\n");
    return 1;
  }
  cmd_write(l, "211-%.500s FTP server status:\r\n", ini_get_p(l, INI_VDOMAIN, "name"));
  cmd_write(l, "     Version Korvane %.500s %.500s\r\n", KORV_VERSION, __DATE__);
  char ip[64] = "";
  if (l->c) tcp_getip(l->c.get(), ip);
  cmd_write(l, "     Connected to %.500s (%.500s)\r\n", l->ipname.c_str(), ip);
  cmd_write(l, "     Logged in as %.500s\r\n", l->user.c_str());
  static const char* const modes[] = {"Stream", "Block", "Compressed"};
  const char* mode = l->mode >= 0 && l->mode <= 2 ? modes[l->mode] : modes[0];
  cmd_write(l, "     TYPE: %.500s, FORM: Nonprint; STRUcture: File; transfer MODE: %.500s\r\n",
            l->isbin ? "BINARY" : "ASCII", mode);
  cmd_write(l, "     No data connection\r\n");
  if (l->ssl_con && l->c) {
    char cipher[256] = "";
    const char* proto = tcp_get_ssl_protocol_name_used(l->c.get());
    tcp_get_ssl_cipher_name_used(l->c.get(), cipher, sizeof cipher);
    cmd_write(l, "     Control connection is encrypted using %s:%s\r\n", proto != nullptr ? proto : "", cipher);
  }
  if (l->ssl_data) cmd_write(l, "     Data connections will be encrypted using SSL/TLS\r\n");
  cmd_write(l, "211 End of status\r\n");
  return 1;
}

int cmd_opts(LINK* l, char** p, int np, const char*) {
  if (np < 2) {
    cmd_write(l, "500 OPTS sub command expected\r\n");
    return 1;
  }
  std::string word = str_lower(p[1]);
  if (word == "utf8" && ini_true(nullptr, INI_GLOBAL_UTF8)) {
    cmd_write(l, "200 fake utf8 enabled\r\n");
    return 1;
  }
  if (word == "mlst") return cmd_opts_mlst(l, p[2], np);
  cmd_write(l, "500 OPTS %.40s command not implemented - let us know if you need this\r\n",
            str_upper(word).c_str());
  return 1;
}

}  // namespace korv
