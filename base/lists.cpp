// WORDLIST and PAIR: owning singly linked lists of words and of name/value
// pairs, freed iteratively.
#include "base/lists.h"

#include <strings.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/str.h"
#include "base/tokens.h"

namespace korv {

namespace {

// Unlinks the chain behind `head` one node at a time, so that destroying a
// long list never recurses.
template <typename Ptr>
void free_chain(Ptr& head) {
    while (head) head = std::move(head->next);
}

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

using StrCmp = int (*)(const char*, const char*);

int pair_remove_by(PairPtr& pp, const char* var, const char* val, StrCmp cmp) {
    PairPtr* link = &pp;
    while (*link) {
        Pair* e = link->get();
        if (cmp(e->var.c_str(), var) == 0 && (!val || e->val == val)) {
            PairPtr gone = std::move(*link);
            *link = std::move(gone->next);
            return 1;
        }
        link = &e->next;
    }
    return 0;
}

const char* pair_find_by(const Pair* p, const char* var, StrCmp cmp) {
    for (; p; p = p->next.get())
        if (cmp(p->var.c_str(), var) == 0) return p->val.c_str();
    return "";
}

int word_find_by(const Wordlist* w, const char* s, StrCmp cmp) {
    for (; w; w = w->next.get())
        if (cmp(w->word.c_str(), s) == 0) return 1;
    return 0;
}

}  // namespace

WORDLIST::~WORDLIST() { free_chain(next); }
PAIR::~PAIR() { free_chain(next); }

int word_add_real(WordlistPtr& list, std::string_view name, const char*, int) {
    auto w = std::make_unique<Wordlist>(name);
    w->next = std::move(list);
    list = std::move(w);
    return 1;
}

int word_add(WordlistPtr& list, std::string_view name) {
    return word_add_real(list, name, __FILE__, __LINE__);
}

int word_copy_real(WordlistPtr& dst, const Wordlist* src, const char* file, int line) {
    for (; src; src = src->next.get()) word_add_real(dst, src->word, file, line);
    return 1;
}

int word_copy(WordlistPtr& dst, const Wordlist* src) {
    return word_copy_real(dst, src, __FILE__, __LINE__);
}

int word_find(const Wordlist* w, const char* s) { return word_find_by(w, s, std::strcmp); }
int word_findnc(const Wordlist* w, const char* s) { return word_find_by(w, s, strcasecmp); }

const char* word_enum(const Wordlist** p) {
    if (!*p) return nullptr;
    const char* w = (*p)->word.c_str();
    *p = (*p)->next.get();
    return w;
}

int word_count(const Wordlist* w) {
    int n = 0;
    for (; w; w = w->next.get()) n++;
    return n;
}

WordlistPtr word_loadfile(const char* file) {
    WordlistPtr list;
    FilePtr f(std::fopen(file, "r"));
    if (!f) return list;
    char line[kBufSize];
    while (std::fgets(line, kLastIndex, f.get())) {
        line[std::strcspn(line, "\r\n")] = 0;
        word_add(list, line);
    }
    word_reverse(list);
    return list;
}

int word_savefile(const Wordlist* lines, const char* file) {
    FilePtr f(std::fopen(file, "w"));
    if (!f) return 0;
    int n = 0;
    for (; lines; lines = lines->next.get(), n++) std::fprintf(f.get(), "%s\n", lines->word.c_str());
    return n;
}

void word_reverse(WordlistPtr& list) {
    WordlistPtr done;
    while (list) {
        WordlistPtr rest = std::move(list->next);
        list->next = std::move(done);
        done = std::move(list);
        list = std::move(rest);
    }
    list = std::move(done);
}

int word_free(WordlistPtr& w) {
    free_chain(w);
    return 1;
}

int word_tok(WordlistPtr& list, const char* string, const char* toks) {
    char copy[kBufSize];
    ncpy(copy, string, kLastIndex);
    int n = 0;
    char* upto = nullptr;
    for (char* t = mystrtok(copy, toks, &upto); t; t = mystrtok(nullptr, toks, &upto), n++)
        word_add(list, t);
    return n;
}

int pair_add_real(PairPtr& pp, std::string_view var, std::string_view val, const char*, int,
                  int check_dups) {
    if (check_dups) {
        for (Pair* p = pp.get(); p; p = p->next.get()) {
            if (p->var == var) {
                p->val = val;
                return 1;
            }
        }
    }
    auto e = std::make_unique<Pair>(var, val);
    e->next = std::move(pp);
    pp = std::move(e);
    return 1;
}

int pair_add(PairPtr& pp, std::string_view var, std::string_view val, int check_dups) {
    return pair_add_real(pp, var, val, __FILE__, __LINE__, check_dups);
}

int pair_add_end(PairPtr& pp, Pair** next, std::string_view var, std::string_view val) {
    Pair* tail = *next;
    if (!tail)
        for (tail = pp.get(); tail && tail->next; tail = tail->next.get()) {
        }
    if (var.empty()) {
        if (!tail) return 0;
        tail->val.append("\r\n ");
        tail->val.append(val);
        *next = tail;
        return 1;
    }
    auto e = std::make_unique<Pair>(var, val);
    Pair* added = e.get();
    PairPtr& slot = tail ? tail->next : pp;
    e->next = std::move(slot);  // keeps whatever followed *next
    slot = std::move(e);
    *next = added;
    return 1;
}

const char* pair_find(const Pair* p, const char* var) { return pair_find_by(p, var, std::strcmp); }
const char* pair_findnc(const Pair* p, const char* var) { return pair_find_by(p, var, strcasecmp); }

int pair_remove(PairPtr& pp, const char* var, const char* val) {
    return pair_remove_by(pp, var, val, std::strcmp);
}

int pair_removenc(PairPtr& pp, const char* var, const char* val) {
    return pair_remove_by(pp, var, val, strcasecmp);
}

PairPtr pair_copy(const Pair* p) {
    PairPtr head;
    PairPtr* tail = &head;
    for (; p; p = p->next.get()) {
        *tail = std::make_unique<Pair>(p->var, p->val);
        tail = &(*tail)->next;
    }
    return head;
}

int pair_free(PairPtr& pp) {
    free_chain(pp);
    return 1;
}

int pair_cmp(const Pair* a, const Pair* b) { return std::strcmp(a->var.c_str(), b->var.c_str()); }
int pair_cmp_v(const Pair* a, const Pair* b) { return std::strcmp(a->val.c_str(), b->val.c_str()); }

void pair_sort(PairPtr& pp, int (*cmp)(const Pair*, const Pair*)) {
    std::vector<PairPtr> nodes;
    while (pp) {
        PairPtr rest = std::move(pp->next);
        nodes.push_back(std::move(pp));
        pp = std::move(rest);
    }
    std::stable_sort(nodes.begin(), nodes.end(),
                     [cmp](const PairPtr& a, const PairPtr& b) { return cmp(a.get(), b.get()) < 0; });
    for (auto it = nodes.rbegin(); it != nodes.rend(); ++it) {
        (*it)->next = std::move(pp);
        pp = std::move(*it);
    }
}

}  // namespace korv
