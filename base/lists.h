// The two owning singly linked lists of the server: WORDLIST (strings) and
// PAIR (name and value). Heads are held in unique_ptr owners; freeing is
// iterative, so a list of any length never deepens the stack.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace korv {

struct WORDLIST;
using Wordlist = WORDLIST;
using WordlistPtr = std::unique_ptr<WORDLIST>;

struct WORDLIST {
    std::string word;
    WordlistPtr next;

    WORDLIST() = default;
    explicit WORDLIST(std::string_view w) : word(w) {}
    WORDLIST(const WORDLIST&) = delete;
    WORDLIST& operator=(const WORDLIST&) = delete;
    ~WORDLIST();
};

// Prepends a copy of `name`. Returns 1. (`file` and `line` name the caller,
// kept for the allocation-tracking form of the call.)
int word_add_real(WordlistPtr& list, std::string_view name, const char* file, int line);
int word_add(WordlistPtr& list, std::string_view name);
// Adds each word of `src` to `dst`, which reverses their order.
int word_copy_real(WordlistPtr& dst, const Wordlist* src, const char* file, int line);
int word_copy(WordlistPtr& dst, const Wordlist* src);
// 1 if `s` is in the list; word_findnc ignores case.
int word_find(const Wordlist* w, const char* s);
int word_findnc(const Wordlist* w, const char* s);
// The next word of a walk, moving *p on; null at the end.
const char* word_enum(const Wordlist** p);
// Number of words.
int word_count(const Wordlist* w);
// Reads lines with fgets into a kLastIndex-byte buffer (a longer line comes
// back in pieces), each cut at CR or LF, in file order. Null for a missing or
// empty file.
WordlistPtr word_loadfile(const char* file);
// Writes "%s\n" per word; returns the count, 0 if the file cannot be opened.
int word_savefile(const Wordlist* lines, const char* file);
// Reverses in place.
void word_reverse(WordlistPtr& list);
// Frees all and leaves the owner null. Returns 1.
int word_free(WordlistPtr& w);
// Adds each mystrtok token of a copy of `string` (its first kLastIndex
// bytes) split by `toks`; returns the count. Tokens are prepended.
int word_tok(WordlistPtr& list, const char* string, const char* toks);

struct PAIR;
using Pair = PAIR;
using PairPtr = std::unique_ptr<PAIR>;

struct PAIR {
    std::string var;
    std::string val;
    PairPtr next;

    PAIR() = default;
    PAIR(std::string_view n, std::string_view v) : var(n), val(v) {}
    PAIR(const PAIR&) = delete;
    PAIR& operator=(const PAIR&) = delete;
    ~PAIR();
};

// With `check_dups`, an entry of the same name (exact case) has its value
// replaced; otherwise a new entry is prepended. Returns 1.
int pair_add_real(PairPtr& pp, std::string_view var, std::string_view val, const char* file,
                  int line, int check_dups);
int pair_add(PairPtr& pp, std::string_view var, std::string_view val, int check_dups = 0);
// Appends after *next (or at the tail when *next is null) and moves *next to
// the new entry. An empty `var` instead appends "\r\n " and `val` to the value
// of *next: folded header lines are joined so. Returns 1, or 0 for an empty
// `var` with nothing to join to.
int pair_add_end(PairPtr& pp, Pair** next, std::string_view var, std::string_view val);
// The value of the first entry of that name, or "" when absent; never null.
const char* pair_find(const Pair* p, const char* var);
const char* pair_findnc(const Pair* p, const char* var);
// Removes the first entry with this name and, if `val` is not null, this
// value. 1 if one was removed, 0 if none.
int pair_remove(PairPtr& pp, const char* var, const char* val);
int pair_removenc(PairPtr& pp, const char* var, const char* val);
// A copy in the same order.
PairPtr pair_copy(const Pair* p);
// Frees all and leaves the owner null. Returns 1.
int pair_free(PairPtr& pp);
// Orderings for sorting: by name, or by value (strcmp results).
int pair_cmp(const Pair* a, const Pair* b);
int pair_cmp_v(const Pair* a, const Pair* b);
// Sorts the list in place, stably, by `cmp`.
void pair_sort(PairPtr& pp, int (*cmp)(const Pair*, const Pair*));

}  // namespace korv
