#pragma once
// A JSON object written field by field into a reused buffer: the traces and histories of long
// captures hold millions of small objects, and building a document per object costs more than
// reading the log. Keys are the caller's literals; strings are escaped.
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace orvcam {
namespace base {

class JsonText {
 public:
  // Starts a new object; the previous text is dropped.
  JsonText& begin() {
    text_.assign("{");
    return *this;
  }
  JsonText& str(const char* key, std::string_view value) {
    keyOf(key);
    text_ += '"';
    size_t plain = 0;  // the leading run that needs no escape, appended at once
    while (plain < value.size() && !needsEscape(value[plain])) ++plain;
    text_.append(value.data(), plain);
    for (char c : value.substr(plain)) {
      if (!needsEscape(c)) {
        text_ += c;
      } else if (c == '"' || c == '\\') {
        text_ += '\\';
        text_ += c;
      } else {
        char esc[8];
        std::snprintf(esc, sizeof esc, "\\u%04x", static_cast<unsigned char>(c));
        text_ += esc;
      }
    }
    text_ += '"';
    return *this;
  }
  JsonText& num(const char* key, int64_t value) {
    keyOf(key);
    number(value);
    return *this;
  }
  JsonText& boolean(const char* key, bool value) {
    keyOf(key);
    text_ += value ? "true" : "false";
    return *this;
  }
  // Nanoseconds as microseconds with three decimals, exactly.
  JsonText& micros(const char* key, int64_t ns) {
    keyOf(key);
    if (ns < 0) {
      text_ += '-';
      ns = -ns;
    }
    char buf[24];
    auto whole = std::to_chars(buf, buf + sizeof buf, ns / 1000);
    text_.append(buf, whole.ptr);
    int frac = int(ns % 1000);
    char digits[4] = {'.', char('0' + frac / 100), char('0' + frac / 10 % 10),
                      char('0' + frac % 10)};
    text_.append(digits, 4);
    return *this;
  }
  template <typename Numbers>
  JsonText& list(const char* key, const Numbers& values) {
    keyOf(key);
    text_ += '[';
    bool first = true;
    for (auto v : values) {
      if (!first) text_ += ',';
      number(int64_t(v));
      first = false;
    }
    text_ += ']';
    return *this;
  }
  // A nested object: open it, add its fields, close it.
  JsonText& open(const char* key) {
    keyOf(key);
    text_ += '{';
    return *this;
  }
  JsonText& close() {
    text_ += '}';
    return *this;
  }
  // The finished object.
  const std::string& end() {
    text_ += '}';
    return text_;
  }

 private:
  static bool needsEscape(char c) {
    return c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20;
  }
  void number(int64_t value) {
    char buf[24];
    auto end = std::to_chars(buf, buf + sizeof buf, value);
    text_.append(buf, end.ptr);
  }
  void keyOf(const char* key) {
    char last = text_.back();
    if (last != '{') text_ += ',';
    text_ += '"';
    text_ += key;
    text_ += "\":";
  }
  std::string text_;
};

}  // namespace base
}  // namespace orvcam
