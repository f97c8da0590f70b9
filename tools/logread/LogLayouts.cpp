// The logcat layouts, one small parser per family: a time prefix (month-day or year-month-day
// clock time, epoch or monotonic seconds, with an optional zone), then the part that names the
// level, tag and process: threadtime fields, brief/time "L/tag(pid): ", tag "L/tag: ",
// process "L(pid) ...  (tag)", thread "L(pid:tid) ", raw (the message only), and long's
// "[ header ]" line. Layouts that drop the tag get it back from the message's function name.
#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

#include "logread/LogReader.h"
#include "logread/LogText.h"

namespace orvcam {
namespace logread {

using namespace text;

namespace {

// The tick of a stamp with `digits` decimals: 1 ms for "fff", 1 us for "ffffff".
int64_t tickOf(size_t digits) {
  int64_t tick = 1;
  for (size_t i = digits; i < 9; ++i) tick *= 10;
  return tick;
}

// The whole seconds of the stamp read last, by its text up to and with its '.': a capture's
// lines mostly share them with the line before, and only the fraction is new.
struct SecondsCache {
  char text[32] = {};
  size_t length = 0;  // 0: empty
  int64_t seconds = 0;
};
thread_local SecondsCache gSeconds;

// "[YYYY-]MM-DD HH:MM:SS.fff[fff[fff]]" -> nanoseconds from the start of a (leap) year.
bool readClockTime(std::string_view s, size_t* pos, int64_t* ns, int64_t* tick) {
  static const int kDaysBefore[] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335};
  const size_t start = *pos;
  size_t p = start;
  size_t dot = s.find('.', p);
  size_t length = dot == std::string_view::npos ? 0 : dot + 1 - p;  // with the '.'
  if (length > 0 && length == gSeconds.length &&
      std::memcmp(s.data() + p, gSeconds.text, length) == 0) {
    size_t q = p + length;
    int64_t frac = 0;
    if (!readNumber(s, &q, &frac) || q - (p + length) > 9) return false;
    *tick = tickOf(q - (p + length));
    *ns = gSeconds.seconds * 1000000000LL + frac * *tick;
    *pos = q;
    return true;
  }
  int64_t a = 0, month = 0, day = 0, h = 0, m = 0, sec = 0;
  if (!readNumber(s, &p, &a) || !expect(s, &p, '-')) return false;
  if (a > 12) {  // a year came first
    if (!readNumber(s, &p, &month) || !expect(s, &p, '-')) return false;
  } else {
    month = a;
  }
  if (!readNumber(s, &p, &day) || !expect(s, &p, ' ')) return false;
  if (!readNumber(s, &p, &h) || !expect(s, &p, ':') || !readNumber(s, &p, &m) ||
      !expect(s, &p, ':') || !readNumber(s, &p, &sec) || !expect(s, &p, '.')) {
    return false;
  }
  size_t fracStart = p;
  int64_t frac = 0;
  if (!readNumber(s, &p, &frac)) return false;
  size_t digits = p - fracStart;
  if (month < 1 || month > 12 || day < 1 || day > 31 || digits > 9) return false;
  *tick = tickOf(digits);
  frac *= *tick;
  int64_t days = kDaysBefore[month - 1] + day - 1;
  int64_t seconds = ((days * 24 + h) * 60 + m) * 60 + sec;
  *ns = seconds * 1000000000LL + frac;
  *pos = p;
  if (length > 0 && length <= sizeof gSeconds.text && fracStart == start + length) {
    std::memcpy(gSeconds.text, s.data() + start, length);
    gSeconds.length = length;
    gSeconds.seconds = seconds;
  }
  return true;
}

// "SSSSSSSSSS.fff[fff[fff]] " (epoch) or "  SSSS.fff " (monotonic) -> nanoseconds.
bool readSeconds(std::string_view s, size_t* pos, int64_t* ns, int64_t* tick) {
  size_t p = *pos;
  int64_t sec = 0, frac = 0;
  if (!readNumber(s, &p, &sec) || !expect(s, &p, '.')) return false;
  size_t fracStart = p;
  if (!readNumber(s, &p, &frac) || p >= s.size() || s[p] != ' ') return false;
  size_t digits = p - fracStart;
  if (digits > 9) return false;
  *tick = tickOf(digits);
  frac *= *tick;
  *ns = sec * 1000000000LL + frac;
  *pos = p;
  return true;
}

// The `zone` modifier's " +0000" after the time.
void skipZone(std::string_view s, size_t* pos) {
  size_t p = *pos;
  skipSpaces(s, &p);
  if (p + 5 <= s.size() && (s[p] == '+' || s[p] == '-') &&
      std::all_of(s.begin() + long(p) + 1, s.begin() + long(p) + 5, isDigit) &&
      (p + 5 == s.size() || s[p + 5] == ' ')) {
    *pos = p + 5;
  }
}

bool readTimePrefix(std::string_view s, size_t* pos, int64_t* ns, int64_t* tick) {
  size_t p = *pos;
  skipSpaces(s, &p);
  if (!readClockTime(s, &p, ns, tick) && !readSeconds(s, &p, ns, tick)) return false;
  skipZone(s, &p);
  *pos = p;
  return true;
}

// The numbers of a "(uid:  pid)", "( pid: tid)" or "uid pid tid" process part, in order.
std::vector<int64_t> numbersIn(std::string_view s) {
  std::vector<int64_t> out;
  size_t p = 0;
  while (p < s.size()) {
    if (isDigit(s[p]) && (p == 0 || s[p - 1] == ' ' || s[p - 1] == ':' || s[p - 1] == '(')) {
      int64_t v = 0;
      size_t q = p;
      readNumber(s, &q, &v);
      if (q == s.size() || s[q] == ' ' || s[q] == ':' || s[q] == ')') out.push_back(v);
      p = q;
    } else {
      ++p;
    }
  }
  return out;
}

std::string_view trimRight(std::string_view s) {
  while (!s.empty() && s.back() == ' ') s.remove_suffix(1);
  return s;
}

// "L/tag(pid): message" (brief, time) or "L/tag: message" (tag).
bool readSlashed(std::string_view s, size_t p, LogLine* out) {
  if (p + 2 >= s.size() || !isLevel(s[p]) || s[p + 1] != '/') return false;
  out->level = s[p];
  p += 2;
  // "tag(pid): " unless a ": " comes before the parenthesis (a tag layout's message).
  size_t colon = s.find(": ", p);
  if (colon == std::string_view::npos) return false;
  size_t close = s.find("): ", p);
  if (close != std::string_view::npos) {
    size_t open = s.rfind('(', close);
    if (open != std::string_view::npos && open >= p &&
        s.substr(p, open - p).find(": ") == std::string_view::npos) {
      std::vector<int64_t> n = numbersIn(s.substr(open, close + 1 - open));
      if (n.empty()) return false;
      out->pid = int(n.back());
      out->tag = trimRight(s.substr(p, open - p));
      out->text = s.substr(close + 3);
      out->layout = out->hasTime ? Layout::Time : Layout::Brief;
      return true;
    }
  }
  std::string_view head = trimRight(s.substr(p, colon - p));
  out->text = s.substr(colon + 2);
  out->tag = head;
  out->layout = Layout::Tag;
  return true;
}

// "L(pid) message  (tag)" (process) or "L(pid:tid) message" (thread).
bool readParenthesised(std::string_view s, size_t p, LogLine* out) {
  if (p + 2 >= s.size() || !isLevel(s[p]) || s[p + 1] != '(') return false;
  size_t close = s.find(") ", p);
  if (close == std::string_view::npos) return false;
  std::vector<int64_t> n = numbersIn(s.substr(p + 1, close - p));
  if (n.empty()) return false;
  out->level = s[p];
  std::string_view rest = s.substr(close + 2);
  size_t suffix = rest.rfind("  (");
  bool hasColon = s.substr(p, close - p).find(':') != std::string_view::npos;
  if (n.size() >= 2 && hasColon) {
    out->pid = int(n[n.size() - 2]);
    out->tid = int(n.back());
    out->text = rest;
    out->layout = Layout::Thread;
    return true;
  }
  if (suffix == std::string_view::npos || rest.back() != ')') return false;
  out->pid = int(n.back());
  out->tag = rest.substr(suffix + 3, rest.size() - suffix - 4);
  out->text = rest.substr(0, suffix);
  out->layout = Layout::Process;
  return true;
}

// Android Studio's Logcat window, after the time: "pid-tid tag package L message" (its columns
// padded with blanks; since 2022) or "pid-tid/package L/tag: message" (before).
bool readStudio(std::string_view s, size_t p, LogLine* out) {
  int64_t pid = 0, tid = 0;
  if (!readNumber(s, &p, &pid) || !expect(s, &p, '-') || !readNumber(s, &p, &tid) ||
      p >= s.size()) {
    return false;
  }
  if (s[p] == '/') {
    size_t space = s.find(' ', p);
    if (space == std::string_view::npos) return false;
    p = space;
    skipSpaces(s, &p);
    if (!readSlashed(s, p, out) || out->layout != Layout::Tag || out->tag.empty()) return false;
  } else {
    // Blank-separated columns: the tag, the package (may be missing), the level.
    std::string_view fields[3];
    size_t n = 0;
    while (n < 3) {
      skipSpaces(s, &p);
      size_t end = std::min(s.find(' ', p), s.size());
      if (end == p) return false;
      fields[n++] = s.substr(p, end - p);
      p = end;
      if (fields[n - 1].size() == 1 && isLevel(fields[n - 1][0]) && n >= 2) break;
    }
    std::string_view level = fields[n - 1];
    if (n < 2 || level.size() != 1 || !isLevel(level[0])) return false;
    skipSpaces(s, &p);
    out->level = level[0];
    out->tag = fields[0];
    out->text = s.substr(p);
  }
  out->pid = int(pid);
  out->tid = int(tid);
  out->layout = Layout::Studio;
  return true;
}

// "[uid] pid tid L tag: message" after the time.
bool readThreadTime(std::string_view s, size_t p, LogLine* out) {
  // At most four fields before the level; on the stack, as this runs for every line.
  std::array<std::string_view, 4> fields;
  size_t count = 0;
  while (p < s.size() && count < fields.size()) {
    size_t end = s.find(' ', p);
    if (end == std::string_view::npos) return false;
    std::string_view field = s.substr(p, end - p);
    p = end;
    skipSpaces(s, &p);
    if (field.size() == 1 && isLevel(field[0]) && count >= 2) {
      out->level = field[0];
      break;
    }
    fields[count++] = field;
  }
  if (out->level == '?' || count < 2) return false;
  auto number = [](std::string_view f, int* v) {
    size_t colon = f.rfind(':');  // "uid:pid"
    if (colon != std::string_view::npos) f = f.substr(colon + 1);
    size_t q = 0;
    int64_t n = 0;
    if (!readNumber(f, &q, &n) || q != f.size()) return false;
    *v = int(n);
    return true;
  };
  if (!number(fields[count - 2], &out->pid) || !number(fields[count - 1], &out->tid)) {
    return false;
  }
  size_t colon = s.find(": ", p);
  if (colon == std::string_view::npos) {
    // A message cut right after the tag still names the tag.
    if (!s.empty() && s.back() == ':') colon = s.size() - 1;
    if (colon == std::string_view::npos) return false;
  }
  out->tag = trimRight(s.substr(p, colon - p));
  out->text = colon + 2 <= s.size() ? s.substr(colon + 2) : std::string_view();
  out->layout = Layout::ThreadTime;
  return true;
}

// The stamp at `*pos`, if the line has one, as the line's time.
void readLineTime(std::string_view s, size_t* pos, LogLine* out) {
  int64_t ns = 0, tick = 0;
  if (readTimePrefix(s, pos, &ns, &tick)) {
    out->hasTime = true;
    out->timeNs = ns;
    out->tickNs = tick;
  }
}

}  // namespace

const char* layoutName(Layout layout) {
  switch (layout) {
    case Layout::ThreadTime: return "threadtime";
    case Layout::Time: return "time";
    case Layout::Brief: return "brief";
    case Layout::Process: return "process";
    case Layout::Tag: return "tag";
    case Layout::Thread: return "thread";
    case Layout::Raw: return "raw";
    case Layout::Long: return "long";
    case Layout::Studio: return "Android Studio";
    case Layout::Unknown: break;
  }
  return "unknown";
}

bool parseLogLine(std::string_view s, LogLine* out) {
  *out = LogLine();
  while (!s.empty() && s.back() == '\r') s.remove_suffix(1);
  size_t p = 0;
  readLineTime(s, &p, out);
  skipSpaces(s, &p);
  if (readSlashed(s, p, out) || readParenthesised(s, p, out)) {
    if (out->layout != Layout::Thread && out->tag.empty()) return false;
    if (out->layout == Layout::Thread) out->tag = inferTag(out->text);
    return !out->tag.empty();
  }
  out->level = '?';
  if (out->hasTime) {
    LogLine studio = *out;
    if (readStudio(s, p, &studio)) {
      *out = studio;
      return true;
    }
    return readThreadTime(s, p, out);
  }
  // The raw layout: the message only.
  out->text = s;
  out->tag = inferTag(s);
  out->layout = Layout::Raw;
  return !out->tag.empty();
}

bool parseLongHeader(std::string_view s, LogLine* out) {
  *out = LogLine();
  while (!s.empty() && s.back() == '\r') s.remove_suffix(1);
  if (!startsWith(s, "[ ") || s.size() < 4 || s.substr(s.size() - 2) != " ]") return false;
  std::string_view inner = trimRight(s.substr(2, s.size() - 4));
  size_t p = 0;
  readLineTime(inner, &p, out);
  // "pid: tid L/tag", the level and tag after the last " L/".
  size_t slash = std::string_view::npos;
  for (size_t i = p; i + 2 < inner.size(); ++i) {
    if (inner[i] == ' ' && isLevel(inner[i + 1]) && inner[i + 2] == '/') {
      slash = i + 1;
      break;
    }
  }
  if (slash == std::string_view::npos) return false;
  std::vector<int64_t> n = numbersIn(inner.substr(p, slash - p));
  if (n.size() < 2) return false;
  out->pid = int(n[n.size() - 2]);
  out->tid = int(n.back());
  out->level = inner[slash];
  out->tag = inner.substr(slash + 2);
  out->layout = Layout::Long;
  return !out->tag.empty();
}

std::string_view inferTag(std::string_view message) {
  // Which of the deliverer's tags writes a message, by the function it names.
  struct Row {
    const char* function;
    const char* tag;
  };
  static const Row kRows[] = {
      {"CamDeliver", "OrvCam/CamDeliver"},
      {"sendJobForConfigure", "OrvCam/CamDeliver"},
      {"sendJobForEnque", "OrvCam/CamDeliver"},
      {"getLicense", "OrvCam/CamDeliver"},
      {"notifyEvent", "OrvCam/CamDeliver"},
      {"breakFrameSync", "OrvCam/CamDeliverGuard"},
      {"getSyncFrames", "OrvCam/CamDeliverGuard"},
      {"getEnquedSyncFrames", "OrvCam/CamDeliverGuard"},
      {"waitUntilEnquedEmpty", "OrvCam/CamDeliverGuard"},
      {"wait", "OrvCam/CamDeliverGuard"},
      {"waitOffSensorPreviousFrameEnqued", "OrvCam/CamDeliverGuard"},
      {"operator()", "OrvCam/CamDeliverGuard"},
      {"isPreviousSyncFrameFinished", "OrvCam/CamDeliverGuard"},
      {"finished", "OrvCam/CamDeliverGuard"},
      {"drop", "OrvCam/CamDeliverGuard"},
      {"flush", "OrvCam/CamDeliverGuard"},
      {"erase", "OrvCam/CamDeliverGuard"},
      {"getPreviousFC", "OrvCam/FrameContextPool"},
      {"pushLicense", "OrvCam/LicenseQueue"},
      {"popLicense", "OrvCam/LicenseQueue"},
      {"changeFramesFD", "OrvCam/LicenseQueue"},
      {"releaseLicense", "OrvCam/LicenseQueue"},
      {"clear", "OrvCam/LicenseQueue"},
  };
  if (message.empty() || message[0] != '[') return {};
  size_t close = message.find(']');
  if (close == std::string_view::npos) return {};
  std::string_view function = message.substr(1, close - 1);
  if (function == "prepare") {
    return contains(message, "prepared, order(") ? "OrvCam/CamDeliverGuard" : "OrvCam/CamDeliver";
  }
  for (const Row& r : kRows) {
    if (function == r.function) return r.tag;
  }
  return {};
}

}  // namespace logread
}  // namespace orvcam
