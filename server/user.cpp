// The login engine: tokens, logins through the system or a module, the
// reading of a module's answer, and the switch of effective identity.
#include "server/user.h"

namespace korv {

void UtokenFree::operator()(UTOKEN* u) const { delete u; }

int user_utoken_free(Utoken* u) {
  delete u;
  return 1;
}

int user_logoff(UtokenPtr& uu) {
  uu.reset();
  return 1;
}

const char* user_home(const Utoken* u) { return u ? u->home.c_str() : "/home/users"; }

}  // namespace korv
