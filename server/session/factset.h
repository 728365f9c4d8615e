// The MLST facts a session has selected (OPTS MLST): the table every session
// starts from, the parsing of a selection and its listing. Pure code.
#pragma once

#include <string>
#include <string_view>

namespace korv {

inline constexpr int kFactSlots = 11;        // room in a session's table; a null name ends it
inline constexpr int kFactListParts = 90;     // OPTS MLST reads this many ";" parts
inline constexpr size_t kFactReasonMax = 100; // the refusal "Invalid option (...)" is cut here

struct FACT {
  const char* name = nullptr;  // a literal of the table; null ends it
  int id = 0;
  int enabled = 0;
};
using Fact = FACT;

// Fills `facts` with the nine facts in order ("type" to "unix.group"),
// "type", "size", "modify" and "unique" enabled, and the end mark.
void fact_init(FACT* facts);
// OPTS MLST: `flist` lower-cased and cut at ";" (empty parts ignored); each
// part must name a fact exactly. 1 with exactly the named facts enabled, or
// 0 with `reason` set and nothing changed.
int fact_setoptions(FACT* facts, std::string_view flist, std::string& reason);
// Names joined by commas: with `showall` all, each enabled one marked "*";
// otherwise only the enabled ones. Returns `tmp`.
std::string& fact_showoptions(const FACT* facts, std::string& tmp, int showall);

}  // namespace korv
