// Host system properties: an in-process key/value store, seeded on first use from the file
// named by ORVCAM_PROPERTY_FILE.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <system_error>
#include <utility>

#include "HostPlatform.h"
#include "properties/Properties.h"

namespace orvcam {
namespace host {
namespace {

struct PropertyStore {
  // Guards `values`. A leaf lock held only to read or change the map: the library reads a
  // property in a deliverer's constructor, under none of its locks.
  std::mutex mutex;
  std::map<std::string, std::string> values ORVCAM_GUARDED_BY(mutex);
};

bool parsePropertyFile(const std::string& path, std::map<std::string, std::string>* out,
                       std::string* error);

// Built on first use rather than at load time so that a client's static initialiser that
// reads a property still sees the seeded values. Leaked so that reads from static
// destructors stay valid.
PropertyStore& store() {
  // Unchecked: the store is filled before any other thread can see it.
  static PropertyStore* s = []() ORVCAM_NO_THREAD_SAFETY_ANALYSIS {
    auto* created = new PropertyStore;
    const char* path = getenv("ORVCAM_PROPERTY_FILE");  // NOLINT(concurrency-mt-unsafe): once
    if (path != nullptr && *path != 0) {
      std::string error;
      if (!parsePropertyFile(path, &created->values, &error)) {
        created->values.clear();
        (void)fprintf(
            stderr, "%s\n",
            formatLogcatLine('E', "OrvCam/HostPlatform", "ORVCAM_PROPERTY_FILE: " + error).c_str());
      }
    }
    return created;
  }();
  return *s;
}

std::string trim(const std::string& text) {
  static const char kSpace[] = " \t\r\n\f\v";
  size_t first = text.find_first_not_of(kSpace);
  if (first == std::string::npos) return "";
  size_t last = text.find_last_not_of(kSpace);
  return text.substr(first, last - first + 1);
}

// Reads the whole file before changing anything, so a malformed file leaves `out` as it was.
bool parsePropertyFile(const std::string& path, std::map<std::string, std::string>* out,
                       std::string* error) {
  std::ifstream in(path);
  if (!in) {
    if (error) *error = path + ": cannot open: " + std::generic_category().message(errno);
    return false;
  }
  std::map<std::string, std::string> parsed;
  std::string raw;
  int lineNo = 0;
  while (std::getline(in, raw)) {
    ++lineNo;
    std::string line = trim(raw);
    if (line.empty() || line[0] == '#') continue;
    size_t eq = line.find('=');
    std::string key = eq == std::string::npos ? "" : trim(line.substr(0, eq));
    if (key.empty()) {
      if (error) *error = path + ":" + std::to_string(lineNo) + ": expected key=value";
      return false;
    }
    parsed[key] = trim(line.substr(eq + 1));
  }
  if (in.bad()) {
    if (error) *error = path + ": read error";
    return false;
  }
  for (auto& entry : parsed) (*out)[entry.first] = std::move(entry.second);
  return true;
}

}  // namespace

void setProperty(const std::string& key, const std::string& value) {
  PropertyStore& s = store();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values[key] = value;
}

void clearProperty(const std::string& key) {
  PropertyStore& s = store();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values.erase(key);
}

void clearProperties() {
  PropertyStore& s = store();
  std::lock_guard<std::mutex> lock(s.mutex);
  s.values.clear();
}

bool loadPropertyFile(const std::string& path, std::string* error) {
  std::map<std::string, std::string> parsed;
  if (!parsePropertyFile(path, &parsed, error)) return false;
  PropertyStore& s = store();
  std::lock_guard<std::mutex> lock(s.mutex);
  for (auto& entry : parsed) s.values[entry.first] = std::move(entry.second);
  return true;
}

std::string getProperty(const std::string& key) {
  PropertyStore& s = store();
  std::lock_guard<std::mutex> lock(s.mutex);
  auto it = s.values.find(key);
  return it == s.values.end() ? std::string() : it->second;
}

}  // namespace host
}  // namespace orvcam

namespace NSCam {
namespace Utils {
namespace Properties {

// Follows libcutils: base from the prefix, trailing text after the number tolerated, and
// the default for an empty value, no digits, overflow or a value outside int32.
int32_t property_get_int32(const char* key, int32_t defaultValue) {
  if (key == nullptr) return defaultValue;
  std::string value = orvcam::host::getProperty(key);
  if (value.empty()) return defaultValue;
  const char* text = value.c_str();
  char* end = nullptr;
  int savedErrno = errno;
  errno = 0;
  intmax_t result = strtoimax(text, &end, 0);
  bool overflow = (result == INTMAX_MIN || result == INTMAX_MAX) && errno == ERANGE;
  errno = savedErrno;
  if (overflow || end == text || result < INT32_MIN || result > INT32_MAX) return defaultValue;
  return static_cast<int32_t>(result);
}

}  // namespace Properties
}  // namespace Utils
}  // namespace NSCam
