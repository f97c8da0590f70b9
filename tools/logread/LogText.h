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

// "[S:%d F:%d]" at `pos`; frame -1 stands for "no frame".
inline bool readSensorFrame(std::string_view s, size_t* pos, uint32_t* sensor, uint32_t* frame) {
  size_t p = *pos;
  int64_t sv = 0, fv = 0;
  if (s.substr(p, 3) != "[S:") return false;
  p += 3;
  if (!readNumber(s, &p, &sv) || s.substr(p, 3) != " F:") return false;
  p += 3;
  bool neg = p < s.size() && s[p] == '-';
  if (neg) ++p;
  if (!readNumber(s, &p, &fv) || !expect(s, &p, ']')) return false;
  *sensor = uint32_t(sv);
  *frame = neg ? uint32_t(-fv) : uint32_t(fv);
  *pos = p;
  return true;
}

// The number inside "(...)" right after `key`, e.g. key "order(" in "prepared, order(3)".
inline bool numberAfter(std::string_view s, std::string_view key, int64_t* value) {
  size_t at = s.find(key);
  if (at == std::string_view::npos) return false;
  size_t p = at + key.size();
  bool neg = p < s.size() && s[p] == '-';
  if (neg) ++p;
  if (!readNumber(s, &p, value)) return false;
  if (neg) *value = -*value;
  return true;
}

}  // namespace text
}  // namespace logread
}  // namespace orvcam
