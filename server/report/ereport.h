// The emailed reports: the definitions in "ereport.dat" (described by the
// table email_report), the thread that checks them once a second, one run of
// a report over the transfer logs of its period, and its mail.
#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "net/tcp.h"
#include "server/report/ereport_table.h"

namespace korv {

inline constexpr char kEreportFile[] = "ereport.dat";
inline constexpr char kEreportNewFile[] = "ereport.newdat";
inline constexpr int kEreportPairsMax = 35;   // pairs read from one line
inline constexpr int kEreportPairsMin = 5;    // a line with fewer ends the reading
inline constexpr int kEreportSlots = 10;
inline constexpr int kEreportResendGap = 62;  // seconds between two runs of one report, at least
inline constexpr int kEreportRecipientsMax = 20;
inline constexpr size_t kEreportValueMax = 1000;
inline constexpr char kEreportIdentity[] = "korvane";

enum ElementType { kElemTime = 1, kElemBool = 2, kElemString = 3, kElemInt = 4 };

// One stored field of a record: its type, its slot, its key in the file (and
// form field), and how the list on the page shows it.
struct STRUCTURE_PROPERTIES {
    int more;
    int element_type;
    int index;
    const char* ini_setting;
    const char* frmt_4_html;
};
using StructureProperties = STRUCTURE_PROPERTIES;
extern const StructureProperties email_report[];

// One report definition and the state of its runs.
struct EMAIL_REPORT_GENERATOR {
    std::string charptrs[kEreportSlots];
    int ints[kEreportSlots] = {};
    int bools[kEreportSlots] = {};
    time_t time_ts[kEreportSlots] = {};
    std::string status = "Waiting to start...";
    ReportGroups data;  // the transfers of the run in hand, grouped
    std::string current_from, current_to;
    time_t sec_from = 0, sec_to = 0;
    time_t last_report_at = 0;
};
using EmailReportGenerator = EMAIL_REPORT_GENERATOR;

// Slots by key; "" or 0 for a key with no row (such as "speeds").
const char* get_charptr(const EmailReportGenerator* r, const char* name);
int get_int(const EmailReportGenerator* r, const char* name);
int get_bool(const EmailReportGenerator* r, const char* name);
time_t get_time_t(const EmailReportGenerator* r, const char* name);
void set_time_t(EmailReportGenerator* r, const char* name, time_t t);
// Sets any field from its text (a bool by is_true); 0 for an unknown key.
int ereport_set_field(EmailReportGenerator* r, const char* name, const char* value);

// The directory of ereport.dat (the server's home); "." until set.
void ereport_set_dir(const std::string& dir);
std::string ereport_path(const char* name);

// The list, under the REPORT lock.
int load_ereport();
int read_email_report_settings(FILE* f);
int write_email_report_list();
void ereport_free_all();
int ereport_count();
// Copies of the definitions for the page, in list order.
std::vector<EmailReportGenerator> ereport_snapshot();

// A new definition from a form: `input` gives each field's value by key.
// Refused with `reason` for a value holding a double quote, a line end or a
// NUL, a bad address list, an hour or minute out of range. 1 when added.
using EreportInputFn = std::function<std::string(const char* key)>;
int add_email_report_settings(const EreportInputFn& input, std::string& reason);
// Removes the definition at `position` (from 0). 1 when there was one.
int remove_email_report_settings(int position);

// The transfer logs are flushed before a run reads them; the FTP layer above
// installs its flush here.
using EreportFlushFn = int (*)();
void ereport_set_log_flush(EreportFlushFn fn);
int ereport_log_flush();

// Starts the thread (once per server start) after loading the list.
int ereport_init(const char* home);

// 86400 for "day...", 604800 for "week...", else 86400.
time_t in_seconds(const char* t);
time_t get_time_of_next_report(struct tm* t, time_t now, time_t last, const char* freq, int hour, int mins);
// One pass of the thread at time `now`: runs what is due. The count run.
int check_for_reports_to_run(time_t now);

// "day/Mon/year" of `t`, the form lib_date_get reads.
std::string report_date(time_t t);
// Reads the transfer logs of [from, to] into itm->data; files are named for
// the day of each step as of `now`. The number of files read.
int ereport_gather(EmailReportGenerator* itm, time_t from, time_t to, time_t now);
// Runs one report now and mails it; 1 on success. `reason` says why not.
int ereport_run(EmailReportGenerator* itm, time_t event, time_t from, time_t to, std::string& reason);
// Runs the definition at `position` at once over its last period ("send now").
int ereport_run_now(int position, std::string& reason);

// The message of a gathered run, as the mail carries it.
int do_generate_headers(Chan* c, time_t event, void* data, const char* emailCR);
int do_generate_body(Chan* c, time_t event, void* data, const char* emailCR);
std::string ereport_sender_domain(const EmailReportGenerator* itm);
// The body through any line writer (tests read it without a relay).
bool ereport_body_lines(const EmailReportGenerator* itm, const ReportLineFn& out);

// The recipients of an address list ("a@b, c@d"); false for a bad one.
bool ereport_recipients(const std::string& list, std::vector<std::string>& out, std::string& reason);

}  // namespace korv
