// Lists of listening channels and the wait list built over them, for the accept loops.
#pragma once

#include "net/ssltcp.h"
#include "net/tcp.h"

namespace korv {

struct CHAN_LIST {
    Chan* c = nullptr;             // the channel, owned by the list
    CHAN_LIST* next = nullptr;
    int msec = 0;                  // never set by Chan_List_Add
    int autostartssl = 0;          // an implicit-TLS port
    WaitFn function = nullptr;     // called with the node when the channel is readable
    void* parameter = nullptr;     // the caller's data
    const char* strid = nullptr;   // the caller's label, kept as given
};
using Chan_List = CHAN_LIST;

// Puts a node at the head of the list; the list owns `ch` from then on. 1, or 0 on failure.
int Chan_List_Add(Chan_List** channel_ftp, Chan* ch, WaitFn function, void* parameter, int autossl,
                  const char* strid);
// tcp_free on every node's channel and frees every node; *channel_ftp becomes null. 1.
int Chan_List_free(Chan_List** channel_ftp);
int Chan_List_create_WaitList(Chan_List* llist, WaitList** wl);
int Chan_List_check_WaitList(WaitList* wl, int msec, int read, int write, int except);
int Chan_List_free_WaitList(WaitList** wl);

}  // namespace korv
