#include "pftrace/PerfettoWriter.h"

#include <cctype>
#include <ctime>

namespace orvcam {
namespace pftrace {

namespace {

constexpr int64_t kSecond = 1000000000LL;
constexpr int64_t kDay = 86400 * kSecond;
// Longer than any year: a seconds stamp past it counts from the epoch, not from boot.
constexpr int64_t kYearNs = 366 * kDay;

// Days from 1970-01-01 to the given date (proleptic Gregorian).
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

int currentYear() {
  std::time_t now = std::time(nullptr);
  std::tm parts{};
  gmtime_r(&now, &parts);
  return parts.tm_year + 1900;
}

}  // namespace

std::optional<CaptureClock> captureClockOf(std::string_view raw, int64_t timeNs, int year,
                                           int utcOffsetMinutes) {
  size_t p = 0;
  while (p < raw.size() && (raw[p] == ' ' || raw[p] == '[')) ++p;
  size_t digits = p;
  while (digits < raw.size() && std::isdigit(static_cast<unsigned char>(raw[digits]))) ++digits;
  if (digits == p || digits >= raw.size()) return std::nullopt;
  if (raw[digits] == '.') {
    // Seconds: since the epoch (-v epoch), or since boot (-v monotonic).
    if (timeNs > kYearNs) return CaptureClock{kClockRealtime, static_cast<uint64_t>(timeNs)};
    return CaptureClock{kClockMonotonic, static_cast<uint64_t>(timeNs)};
  }
  if (raw[digits] != '-') return std::nullopt;
  if (digits - p == 4) year = std::stoi(std::string(raw.substr(p, 4)));  // a year came first
  if (year <= 0) year = currentYear();
  // The reader counts days as in a leap year: month and day back from its day number.
  static const int kDaysBefore[] = {0, 31, 60, 91, 121, 152, 182, 213, 244, 274, 305, 335, 366};
  int64_t dayOfYear = timeNs / kDay;
  unsigned month = 1;
  while (month < 12 && dayOfYear >= kDaysBefore[month]) ++month;
  unsigned day = static_cast<unsigned>(dayOfYear - kDaysBefore[month - 1] + 1);
  int64_t epochDay = daysFromCivil(year, month, day);
  int64_t ns = epochDay * kDay + timeNs % kDay - int64_t(utcOffsetMinutes) * 60 * kSecond;
  if (ns < 0) return std::nullopt;
  return CaptureClock{kClockRealtime, static_cast<uint64_t>(ns)};
}

}  // namespace pftrace
}  // namespace orvcam
