// The placeholder answer of the administration ports until the web
// administration exists: a short page saying so, on HTTP and on HTTPS.
#pragma once

namespace korv {

struct LINK;

constexpr int kWebStubReadMs = 2000;  // how long the request head is waited for

// Session routine of the administration ports; runs on the main thread.
int mgr_main_no_threads(LINK* l);

}  // namespace korv
