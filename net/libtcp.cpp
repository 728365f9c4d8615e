// Lists of listening channels: building them, freeing them, and the wait list made from them
// that the accept loops poll.
#include "net/libtcp.h"

#include <memory>

namespace korv {

int Chan_List_Add(Chan_List** channel_ftp, Chan* ch, WaitFn function, void* parameter, int autossl,
                  const char* strid) {
    if (!channel_ftp) return 0;
    auto node = std::make_unique<Chan_List>();
    node->c = ch;
    node->function = function;
    node->parameter = parameter;
    node->autostartssl = autossl;
    node->strid = strid;
    node->next = *channel_ftp;
    *channel_ftp = node.release();
    return 1;
}

int Chan_List_free(Chan_List** channel_ftp) {
    if (!channel_ftp) return 1;
    Chan_List* n = *channel_ftp;
    while (n) {
        std::unique_ptr<Chan_List> owned(n);
        n = n->next;
        tcp_free(&owned->c);
    }
    // The head would point at freed nodes: the list is empty now.
    *channel_ftp = nullptr;
    return 1;
}

int Chan_List_create_WaitList(Chan_List* llist, WaitList** wl) {
    for (Chan_List* n = llist; n; n = n->next)
        if (!SSLTcp_AddCreate_WaitList(n->c->tcp.get(), n->function, n, wl)) return 0;
    return 1;
}

int Chan_List_check_WaitList(WaitList* wl, int msec, int read, int write, int except) {
    return SSLTcp_Check_WaitList(wl, msec, read, write, except);
}

int Chan_List_free_WaitList(WaitList** wl) { return SSLTcp_Free_WaitList(wl); }

}  // namespace korv
