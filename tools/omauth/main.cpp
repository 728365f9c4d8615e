// omauth: the bundled authentication module. Serves the module protocol on standard input and
// output against one users file, and sets passwords from a terminal or a pipe.
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "base/secret.h"
#include "tools/omauth/protocol.h"
#include "tools/omauth/userfile.h"

using namespace korv::omauth;
using korv::read_secret;

namespace {

constexpr const char* kUsage =
    "usage: omauth -file USERS [-path DIR]   serve the module protocol on standard input and output\n"
    "       omauth -passwd USERS USER [-uid N] [-gid N]\n"
    "                                        set USER's password (the user is made if new): asked twice\n"
    "                                        on a terminal, else the first line of standard input;\n"
    "                                        -uid and -gid set the system ids the user's file work\n"
    "                                        runs as (ftpuid, ftpgid; without them the server's\n"
    "                                        unprivileged account)\n";

// The server adds -path "DIR" with the quotes as they stand.
std::string unquote(std::string s) {
    if (s.size() >= 2 && s.front() == '"' && s.back() == '"') s = s.substr(1, s.size() - 2);
    return s;
}

// `ids` holds the account fields to set with the password (ftpuid, ftpgid).
int set_password(const std::string& file, const std::string& user,
                 const std::vector<std::pair<std::string, std::string>>& ids) {
    if (!valid_name(user)) {
        std::fprintf(stderr, "omauth: bad user name\n");
        return 2;
    }
    std::string pass, again;
    if (!read_secret("Password: ", pass)) {
        std::fprintf(stderr, "omauth: no password given\n");
        return 2;
    }
    if (::isatty(0) && (!read_secret("Again: ", again) || again != pass)) {
        std::fprintf(stderr, "omauth: the passwords differ\n");
        return 2;
    }
    if (pass.empty() || pass.size() > kPassMax || pass.find_first_of("\r\n") != std::string::npos) {
        std::fprintf(stderr, "omauth: the password must hold 1 to %zu characters\n", kPassMax);
        return 2;
    }
    UsersLock lock(file);
    UserFile uf;
    std::string err;
    if (!lock.held() || !load_users(file, uf, err)) {
        std::fprintf(stderr, "omauth: %s\n", lock.held() ? err.c_str() : "cannot lock the users file");
        return 1;
    }
    OmUser* u = uf.find(user);
    if (!u) {
        uf.users.push_back(OmUser{user, "", {}});
        u = &uf.users.back();
    }
    u->hash = hash_password(pass);
    for (const auto& [field, value] : ids) u->fields[field] = value;
    if (u->hash.empty() || !save_users(uf, err)) {
        std::fprintf(stderr, "omauth: %s\n", u->hash.empty() ? "password hashing failed" : err.c_str());
        return 1;
    }
    std::printf("omauth: password of %s set in %s\n", user.c_str(), file.c_str());
    return 0;
}

int serve(const std::string& file) {
    // Nobody reads our standard error for certain: a full pipe must never stop the module.
    ::fcntl(2, F_SETFL, ::fcntl(2, F_GETFL) | O_NONBLOCK);
    auto say = [](std::string_view line) {
        std::string s(line);
        s += '\n';
        if (std::fwrite(s.data(), 1, s.size(), stdout) != s.size() || std::fflush(stdout) != 0) std::exit(1);
    };
    auto note = [](std::string_view text) { std::fprintf(stderr, "omauth: %.*s\n", static_cast<int>(text.size()), text.data()); };
    Module m(file, say, note);
    std::string line;
    while (std::getline(std::cin, line))
        if (!m.handle(line)) break;
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file, dir;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "-passwd" && i + 2 < argc) {
            std::vector<std::pair<std::string, std::string>> ids;
            for (int j = i + 3; j < argc; j += 2) {
                std::string opt = argv[j];
                const char* field = opt == "-uid" ? "ftpuid" : opt == "-gid" ? "ftpgid" : nullptr;
                if (field == nullptr || j + 1 >= argc || !valid_field_value(field, argv[j + 1])) {
                    std::fputs(kUsage, stderr);
                    return 2;
                }
                ids.emplace_back(field, argv[j + 1]);
            }
            return set_password(argv[i + 1], argv[i + 2], ids);
        }
        if (a == "-file" && i + 1 < argc) {
            file = argv[++i];
        } else if (a == "-path" && i + 1 < argc) {
            dir = unquote(argv[++i]);
        } else {
            std::fputs(kUsage, stderr);
            return 2;
        }
    }
    if (file.empty()) {
        if (dir.empty()) {
            std::fputs(kUsage, stderr);
            return 2;
        }
        file = dir + "/omauth.users";  // beside the module, when no file is named
    }
    return serve(file);
}
