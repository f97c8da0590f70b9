#pragma once
// Small text scanners shared by the logcat layout parsers and the timeline builder. Positions
// are byte offsets into a std::string_view; every reader leaves `*pos` alone when it fails.
#include <cstdint>
#include <cstring>
#include <string_view>

namespace orvcam {
namespace logread {
namespace text {

inline bool isDigit(char c) { return c >= '0' && c <= '9'; }
inline bool isLevel(char c) { return c != 0 && std::strchr("VDIWEFA", c) != nullptr; }

// An unsigned decimal number at `pos`; false when there is none.
inline bool readNumber(std::string_view s, size_t* pos, int64_t* value) {
  size_t p = *pos;
  if (p >= s.size() || !isDigit(s[p])) return false;
  int64_t v = 0;
  while (p < s.size() && isDigit(s[p])) v = v * 10 + (s[p++] - '0');
  *value = v;
  *pos = p;
  return true;
}

inline bool expect(std::string_view s, size_t* pos, char c) {
  if (*pos >= s.size() || s[*pos] != c) return false;
  ++*pos;
  return true;
}

inline void skipSpaces(std::string_view s, size_t* pos) {
  while (*pos < s.size() && s[*pos] == ' ') ++*pos;
}

inline bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}
inline bool contains(std::string_view s, std::string_view part) {
  return s.find(part) != std::string_view::npos;
}

}  // namespace text
}  // namespace logread
}  // namespace orvcam
