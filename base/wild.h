// Wild-card matching of names and addresses, match lists ("a*,!b*") and
// the rewriting of a name by a pattern (wildrep). Pure functions over the
// caller's memory; safe from any thread.
#pragma once

#include <string>

namespace korv {

// Visible cuts of the match lists and of wildrep.
inline constexpr size_t kMatchListValueMax = 990;  // the value tested by a list
inline constexpr size_t kMatchListItemMax = 100;   // one item of a list
inline constexpr int kWildrepWordsMax = 18;        // words of a wildrep pattern
inline constexpr size_t kWildrepResultMax = 500;   // characters of its result

// Matches `text` against pattern `p`: "?" one character, "*" any run,
// "[a-z]" / "[^...]" classes, "\" quotes the next character. Case-sensitive.
// 1 match, 0 no match, -1 the text ran out before the pattern did.
int domatch(const char* text, const char* p);
// The same with a choice: 0 compares letters in either ASCII case (in
// classes too, so "[a-c]" takes "B").
int simple_domatch(const char* text, const char* p, int case_sensitive);

// "*" alone matches anything (even ""); otherwise domatch(text, wild) == 1.
int match_wild(const char* wild, const char* text);
// match_wild ignoring case: listings test a real path against a pattern.
int simple_match_wild(const char* wild, const char* text);

// Dotted-quad pattern: each of the 4 parts is a numeric range "lo-hi"
// (inclusive) or a wild-card. 1 if all four parts pass, else 0.
int match_wild_ipnum(const char* xiprange, const char* xipnum);

// A pattern that starts with a digit and holds "-" is tried as an address
// range first, then as a wild-card; any other pattern is a wild-card.
int match_wild_or_ip(const char* wild, const char* text);

// Comma-separated list of wild-cards, "!" before an item negates it; the
// last item that matches decides. An empty list matches everything; an
// empty item ends the list. Case-insensitive. 1 or 0.
int lib_match_list(const char* xwild, const char* xgrp2);

// The same list form for group names, with plain wild-cards only; an item
// may carry "@" after any "!", which gives it the sense 0 and marks it.
// `*isat` (may be null) says whether the deciding item was so marked.
int lib_match_groups(const char* xwild, const char* xgrp2, int* isat);

// Rewrites `in` by pattern: `wild` is cut at "*" into words found in order
// in `in` (ignoring case); the text each "*" stood for is a match, and
// `tpl` is copied to `result` with "%1".."%9" replaced by the matches.
// 1 on success, 0 if `in` does not fit `wild` (then `result` is empty).
int wildrep(const char* in, const char* wild, const char* tpl, std::string& result);

}  // namespace korv
