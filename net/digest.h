// Small digests and encodings the password checks need: SHA-1, base64 both
// ways, and a comparison that takes the same time wherever the texts differ.
#pragma once

#include <string>
#include <string_view>

namespace korv {

// The 20 raw bytes of SHA-1 of `data`.
std::string sha1_raw(std::string_view data);
// Standard base64 with padding.
std::string base64_encode(std::string_view data);
// Decodes standard base64 (padding optional, no blanks inside) into `out`.
// The count of bytes, or -1 for a text that is not base64 or would decode to
// more than `max` bytes.
int base64_decode(std::string_view text, std::string& out, size_t max);
// 1 if equal; the time depends only on the lengths.
int secret_equal(std::string_view a, std::string_view b);

}  // namespace korv
