// Hashed directory names: the seven hash levels over a stripped, lower-case
// name, and the comma encoding of characters a file name may not hold.
#include "base/newhash.h"

#include <cctype>
#include <cstring>

#include "base/fmt.h"

namespace korv {
namespace {

bool is_sep(char c) { return c == '/' || c == '\\'; }

void addsep(std::string& path) {
  if (path.empty() || !is_sep(path.back())) path += '/';
}

// The name without the invalid characters and dots, in lower case.
std::string strip_invalid(const char* user, const char* invalid) {
  std::string out;
  for (const char* p = user; *p != 0 && out.size() < kHashNameMax; p++) {
    char c = static_cast<char>(tolower(static_cast<unsigned char>(*p)));
    if (c == '.' || strchr(invalid, c) != nullptr) continue;
    out += c;
  }
  return out;
}

// Sums modulo 256 of the bytes at even (s1) and odd (s2) positions.
void sums(const std::string& n, int* s1, int* s2) {
  unsigned a = 0, b = 0;
  for (size_t i = 0; i < n.size(); i++) {
    if (i % 2 == 0)
      a += static_cast<unsigned char>(n[i]);
    else
      b += static_cast<unsigned char>(n[i]);
  }
  *s1 = static_cast<int>(a % 256);
  *s2 = static_cast<int>(b % 256);
}

std::string level_hash(const std::string& n, int level) {
  int s1 = 0, s2 = 0;
  sums(n, &s1, &s2);
  auto letter = [](int x) { return static_cast<char>('a' + x); };
  auto digit = [](int x) { return static_cast<char>('0' + x); };
  std::string out;
  switch (level) {
    case 1: {
      unsigned total = 0;
      for (size_t i = 0; i < n.size() && i < 4; i++) total += static_cast<unsigned char>(n[i]);
      out += letter(static_cast<int>(total % 26));
      break;
    }
    case 2:
      out += n[0];
      out += '/';
      out += n.size() > 1 ? n[1] : n[0];
      break;
    case 3:
      out = "n_";
      out += letter(s1 / 10);
      out += digit(s1 % 10);
      out += '/';
      out += letter(s2 / 10);
      out += digit(s2 % 10);
      break;
    case 4: {
      // "ab/cd/" read from the name itself: a short name ends it early.
      const char shape[] = {n[0], n.size() > 1 ? n[1] : '\0', '/',
                            n.size() > 2 ? n[2] : '\0', n.size() > 3 ? n[3] : '\0', '/'};
      for (char c : shape) {
        if (c == 0) break;
        out += c;
      }
      break;
    }
    case 6:
      out += digit((s1 + s2) % 10);
      out += '/';
      [[fallthrough]];
    case 5:
      out += letter(s1 / 10);
      out += letter(s1 % 10);
      out += '/';
      out += letter(s2 / 10);
      out += letter(s2 % 10);
      break;
    default:  // level 0: nothing
      break;
  }
  for (char& c : out) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

std::string encode_invalid(const char* user, const char* invalid) {
  std::string out;
  if (user == nullptr) return out;
  if (invalid == nullptr || *invalid == 0) invalid = "/";
  for (const char* p = user; *p != 0; p++) {
    if (*p == ',' || strchr(invalid, *p) != nullptr)
      strfmt_append(out, "%c%02x", ',', static_cast<unsigned char>(*p));
    else
      out += *p;
  }
  if (out.size() > kHashNameMax) out.resize(kHashNameMax);
  return out;
}

int hash_new(std::string& path, const char* user, const char* invalid, int level, int adduser,
             std::string* out_name) {
  if (invalid == nullptr || *invalid == 0) invalid = "/";
  if (user == nullptr) user = "";
  std::string lname = strip_invalid(user, invalid);
  std::string ename = encode_invalid(user, invalid);
  if (path.empty() || *user == 0 || lname.empty() || ename.empty() || level < 0 ||
      level > kHashMaxLevel) {
    path.clear();
    return 0;
  }
  addsep(path);
  path += level_hash(lname, level);
  if (adduser) {
    addsep(path);
    path += ename;
  }
  if (out_name != nullptr) *out_name = ename;
  return 1;
}

}  // namespace korv
