// Text helpers shared by the libraries and kvtool. All of them work on ASCII
// only and never consult the locale.
#pragma once

#include <algorithm>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace kvtext {

constexpr char ascii_lower(char c) noexcept { return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c; }
constexpr char ascii_upper(char c) noexcept { return (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c; }

inline std::string ascii_lower(std::string text) {
  for (char& c : text) c = ascii_lower(c);
  return text;
}

constexpr bool equal_ignoring_ascii_case(std::string_view a, std::string_view b) noexcept {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i)
    if (ascii_lower(a[i]) != ascii_lower(b[i])) return false;
  return true;
}

// Blank: space or tab. White space: blank, LF, VT, FF, CR (isspace in the "C" locale).
constexpr bool is_blank(char c) noexcept { return c == ' ' || c == '\t'; }
constexpr bool is_ascii_ws(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Trimming strips the end first: a text that is all trimmed characters gives
// an empty view at its start.
template <typename Trimmed>
constexpr std::string_view trim_if(std::string_view text, Trimmed trimmed) noexcept {
  std::size_t end = text.size();
  while (end > 0 && trimmed(text[end - 1])) --end;
  std::size_t begin = 0;
  while (begin < end && trimmed(text[begin])) ++begin;
  return text.substr(begin, end - begin);
}

// Without leading and trailing spaces (' ' only).
constexpr std::string_view trim_spaces(std::string_view text) noexcept {
  return trim_if(text, [](char c) { return c == ' '; });
}
// Without leading and trailing blanks (space, tab).
constexpr std::string_view trim_blanks(std::string_view text) noexcept { return trim_if(text, is_blank); }
// Without leading and trailing white space (space, tab, LF, VT, FF, CR).
constexpr std::string_view trim_ascii_ws(std::string_view text) noexcept { return trim_if(text, is_ascii_ws); }

// The parts of text between any of the separator characters, empty parts
// included: "a;;b" gives "a", "", "b" and "" gives one empty part.
inline std::vector<std::string> split(std::string_view text, std::string_view separators) {
  std::vector<std::string> parts;
  for (;;) {
    const std::size_t end = text.find_first_of(separators);
    parts.emplace_back(text.substr(0, end));
    if (end == std::string_view::npos) return parts;
    text.remove_prefix(end + 1);
  }
}

// printf into out, keeping at most limit characters of the result; args is
// left as it was. Returns what vsnprintf returns: the length of the whole
// result, or a negative number on a format error (out is then empty).
inline int format_into(std::string& out, const char* format, va_list args, std::size_t limit = std::string::npos) {
  char local[1024];
  va_list copy;
  va_copy(copy, args);
  const int n = std::vsnprintf(local, sizeof local, format, copy);
  va_end(copy);
  if (n < 0) {
    out.clear();
    return n;
  }
  const std::size_t keep = std::min(static_cast<std::size_t>(n), limit);
  if (static_cast<std::size_t>(n) < sizeof local) {
    out.assign(local, keep);
  } else {
    out.resize(keep + 1);
    va_copy(copy, args);
    std::vsnprintf(out.data(), out.size(), format, copy);
    va_end(copy);
    out.resize(keep);
  }
  return n;
}

inline std::string format_string(const char* format, va_list args, std::size_t limit = std::string::npos) {
  std::string out;
  format_into(out, format, args, limit);
  return out;
}

}  // namespace kvtext
