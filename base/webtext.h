// Escaping of form values and display text for the admin pages, and the
// one-line stored form of multi-line texts such as banners.
#pragma once

#include <string>
#include <string_view>

namespace korv {

// lib_url_encode leaves a text of this many bytes or more unchanged.
inline constexpr int kUrlEncodeLimit = 601;
// Output bound of lib_url_decode and of the buffer form of lib_web_encode.
inline constexpr int kUrlDecodeMax = 1000;
// lib_url_encode's buffer: every byte of the longest text may become 5.
inline constexpr int kUrlEncodeBuf = (kUrlEncodeLimit - 1) * 5 + 1;

// Form-value escaping (not percent encoding): "<" "&lt;", ">" "&gt;",
// "&" "&amp;", '"' "&#34;", "+" "&#2b;", a blank "+". A null `s` gives "";
// a text of kUrlEncodeLimit bytes or more is returned as `s`, untouched.
// `bf` needs kUrlEncodeBuf bytes. Returns bf or s.
const char* lib_url_encode(char* bf, const char* s);
std::string lib_url_encode(std::string_view s);
// The reverse, at most kUrlDecodeMax output bytes (`bf` needs one more): "+"
// to a blank, "&lt;", "&gt;", "&amp;", and "&#" hexadecimal digits up to ';'.
// An '&' that begins nothing known stays as it is.
char* lib_url_decode(char* bf, const char* s);
std::string lib_url_decode(std::string_view s);
// HTML escaping for display: '<', '>', '&', '"' as entities. The buffer form
// writes at most kUrlDecodeMax - 1 bytes (never half an entity) into a
// kUrlDecodeMax buffer; the string form is unbounded.
char* lib_web_encode(char* bf, const char* s);
std::string lib_web_encode(std::string_view s);

// Stored form of a multi-line text kept on one settings line: lib_cr_encode
// drops CR, writes LF as the two bytes backslash and n, doubles each backslash,
// and stops before an escape that would pass kCrEncodeMax bytes. lib_cr_decode
// reverses it; a backslash before any other byte stays as it is.
inline constexpr int kCrEncodeMax = 4000;
std::string lib_cr_encode(std::string_view s);
std::string lib_cr_decode(std::string_view s);
// Buffer form: at most `len` bytes (the last index, as ncpy) into `out`.
char* lib_cr_decode(char* out, const char* in, int len);

}  // namespace korv
