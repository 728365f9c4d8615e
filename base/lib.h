// The small shared vocabulary of the server: bounded copies, tokenisers, the
// line walker, word and pair lists, truth tests, hashes, number, web-text and
// date formats. Include this one header to get them all.
#pragma once

#include "base/dates.h"
#include "base/lists.h"
#include "base/str.h"
#include "base/tokens.h"
#include "base/webtext.h"
