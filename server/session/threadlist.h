// The thread registry: one row for every thread the server starts for a
// connection or a service, the five session counters, the count of FTP
// sessions in progress, and the accounting wrapper every pooled thread runs.
#pragma once

#include <ctime>

#include "base/threads.h"

namespace korv {

struct LINK;

// Thread names, compared by address.
extern const char* const THREAD_ID_STRING_CHANNEL_OPENING;
extern const char* const THREAD_ID_STRING_FTP;
extern const char* const THREAD_ID_STRING_ANONFTP;
extern const char* const THREAD_ID_STRING_WEB_ADMIN;
extern const char* const THREAD_ID_STRING_WEB_IMAGE;
extern const char* const THREAD_ID_MAIN_PROCESS;
extern const char* const THREAD_ID_MIRROR_PROCESS;
extern const char* const THREAD_ID_REPORT_PROCESS;
extern const char* const THREAD_ID_FTP_CHANNEL_HANDLER;
extern const char* const THREAD_ID_IDLE_THREAD;
extern const char* const THREAD_ID_SELF_DIAGNOSTIC;

struct THREADLIST {
    Thread* th = nullptr;         // owned; null for a process row
    const char* threadname = nullptr;
    int used = 0;
    int session = 0;
    time_t start_time = 0;
    time_t openclose_time = 0;
    LINK* l = nullptr;            // owned while the job runs
    int MainPid = 0;
    THREADLIST* next = nullptr;
};
using ThreadList = THREADLIST;

int main_thread_store(Thread* th, const char* threadname, LINK* l, time_t start_time);
int main_thread_set_name(Thread* th, const char* threadname, LINK* l);
int main_thread_store_MainProcess(int pid, const char* threadname, LINK* l, time_t starttime);
int main_thread_remove_MainProcess(int pid);
THREADLIST* main_thread_list();  // hold MUTEX_CREATE_THREAD_LIST while reading
int main_thread_count();
int main_thread_free_one(Thread* th, int do_reuse);
int main_thread_kill_all(int is_restarting);

long get_server_FTP_sessions_served();
long get_server_AnonFTP_sessions_served();
long get_server_GUI_sessions_served();
long get_server_IMG_sessions_served();
long get_server_NON_sessions_served();

// FTP sessions in progress, moved under MUTEX_CURRENT_CONNECTIONS.
void total_add_user();
void total_remove_user();
int total_logged_in_users();

// Pooled threads under accounting. `v_fn` gets `param` when it is not null,
// else the session `l`. 1, or 0 if no thread could be had.
using AccountFn = int (*)(void*);
int main_new_reuse_thread(AccountFn v_fn, LINK* l, void* param, const char* threadname);
int thread_accounting_fn(void* x);
// The same on a thread of its own with a stack of `stack_bytes`, which ends
// with its job instead of joining the pool.
int main_new_thread(AccountFn v_fn, LINK* l, void* param, const char* threadname, size_t stack_bytes);

int ftp_is_reuse();
void ftp_set_reuse(int truth);

}  // namespace korv
