// The SMTP sender: one blocking delivery of one message to one recipient
// through the site's relay. The caller's two callbacks write the headers and
// the body straight onto the channel, so a long message never sits in memory.
// Depends on net/, common/ and base/ only: the monitor uses it too.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "net/tcp.h"

namespace korv {

inline constexpr int kSmtpPort = 25;
inline constexpr int kSmtpReasonMax = 999;     // the reason text is cut here
inline constexpr int kSmtpReplyMax = 65536;    // a reply longer than this is refused
inline constexpr int kSmtpWaitMs = 120000;     // each reply and each write of a stalled relay
inline constexpr char kSmtpCR[] = "\r\n";

// Writes part of the message; 0 on failure. `emailCR` is the line end in use.
using SmtpWriteFn = int (*)(Chan* c, time_t event, void* data, const char* emailCR);

// Delivers one message. `smtpServer` is "host" or "host:port" (port 25 when
// none is given). When the relay offers STARTTLS the rest goes over TLS
// (the relay's certificate is not checked). 1 when the relay accepted the
// message, else 0; `reason` receives the outcome either way.
int send_email(const char* smtpServer, const char* lcl_identity, const char* From, const char* To, time_t event,
               void* data, SmtpWriteFn do_headers, SmtpWriteFn do_body, std::string& reason);

// Reads one whole reply (every line of a multi-line one). 1 for a code below
// 500; on a code of 500 or more QUIT is sent. 0 otherwise with `reason` set.
int doread_get_smtp_response(Chan* c, std::string& reason);

// "Date: ..." in local time with the zone's offset, for `event`.
int do_standard_date_header(Chan* c, time_t event, void* unused, const char* emailCR);
std::string smtp_date_header(time_t event, const char* emailCR);

// Text written inside a message body: each line that starts with a dot gets
// a second one, so that a line of "." cannot end the message early.
int smtp_body_line(Chan* c, std::string_view line, const char* emailCR);
// Any text onto the channel within the write limit; 1 or 0.
int smtp_write(Chan* c, std::string_view text);

// Stub kept for callers that ask for a scheduled mail: sends nothing, 1.
int schedule_email(int regularity, const char* reason_for_email, const char* description);

// The wait for each reply and write, normally kSmtpWaitMs; tests shorten it.
void smtp_set_wait_ms(int ms);

}  // namespace korv
