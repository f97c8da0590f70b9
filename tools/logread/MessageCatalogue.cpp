#include "logread/MessageCatalogue.h"

#include "logread/LogText.h"

namespace orvcam {
namespace logread {

using namespace text;

namespace {

constexpr const char* kUnknownWarning = "not a warning this tool knows";

// The fatal assertions, as their messages start once numbers are shapes, with the client rule
// each stands for; no rule: the library's own bookkeeping broke.
struct Fatal {
  const char* shape;
  const char* rule;
};
const Fatal kFatals[] = {
    {"FCPool size > ", "emplace a 20th frame while 19 are in the pool"},
    {"[S:N F:N] pFc nullptr !",
     "prepare with an empty record (from breakFrameSync: an in-flight report named a frame "
     "that had left the pool)"},
    {"[F:N] weird synclist count", "give a non-configure frame a sync list of exactly one sensor"},
    {"[F:N] sensorId(N) in synclist but not in enqlist",
     "put a sensor in the sync list without needEnq"},
    {"[S:N F:N] FC not found !",
     "send for a frame that is not in the pool (never emplaced, or already retired)"},
    {"[S:N F:N] unexpected not enq count(N)",
     "send for a record in the pool in which every sensor that needs enqueue already is "
     "enqueued"},
    {"[S:N F:N] No license to config, please check flow !!",
     "send a configure job without a queued configure licence (after flush, after "
     "setConfigured, twice, or for a sensor without needCfg)"},
    {"[S:N F:N] pJob is null", "send an empty enqueue job"},
    {"[S:N F:N] FC already finished, please check it !",
     "report setConfigured on a record whose sensors are all enqueued"},
    {"frameNo(N) not exist, check it has been poped or not",
     "report InformInflight with value 0 while one of the sensor's synchronised frames has "
     "no queued licence left (not yet prepared, flushed)"},
    {"[S:N] configure frame(N) must not in change-FD flow",
     "report InformInflight with value 0 while one of the sensor's synchronised frames still "
     "holds a configure licence"},
    {"frameNo(N) doesn't contain any FD, should not happen", nullptr},
    {"[S:N F:N] pLicense is null", nullptr},
    {"[S:N F:N] license should not exist !!, please check the flow !!", nullptr},
    {"mQueue size should be 0!", nullptr},
};

const Fatal* fatalFor(std::string_view text) {
  std::string s = shape(text);
  for (const Fatal& f : kFatals) {
    if (startsWith(s, f.shape)) return &f;
  }
  return nullptr;
}

}  // namespace

// A message text with every run of digits (and a leading minus) replaced by "N": the kind of
// a warning.
std::string shape(std::string_view text) {
  std::string out;
  for (size_t i = 0; i < text.size(); ++i) {
    bool neg = text[i] == '-' && i + 1 < text.size() && isDigit(text[i + 1]);
    if (isDigit(text[i]) || neg) {
      out += 'N';
      ++i;
      while (i < text.size() && isDigit(text[i])) ++i;
      --i;
    } else {
      out += text[i];
    }
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

bool isFatalText(std::string_view text) { return fatalFor(text) != nullptr; }

bool isWarningText(std::string_view text) {
  return explainWarning(shape(text)).why != kUnknownWarning;
}

std::string ruleForFatal(const std::string& message) {
  if (message.find("F:-1] FC not found !") != std::string::npos) {
    return "rule broken: don't report setConfigured for frame 0xFFFFFFFF while no record is kept "
           "under that number";
  }
  const Fatal* f = fatalFor(message);
  if (f && f->rule) return std::string("rule broken: don't ") + f->rule;
  return "not a client rule: the library's own bookkeeping broke (licence queue or pool "
         "invariant)";
}

WarningExplanation explainWarning(const std::string& kind) {
  struct Known {
    const char* pattern;  // a part of the warning's text; the first match explains it
    WarningClass cls;
    const char* why;
    const char* clientOrder;
  };
  constexpr WarningClass kBenign = WarningClass::Benign;
  constexpr WarningClass kOrder = WarningClass::ClientOrder;
  constexpr WarningClass kLook = WarningClass::Attention;
  // "already finished" and "FC not found ! maybe flushed" come before the plain "FC not found".
  static const Known kKnown[] = {
      {"license already null !", kBenign,
       "written on every setConfigured and every drop (every release by key)", ""},
      {"NOT have F:N in licenseQueue", kOrder,
       "a licence was asked for or handed back that was not queued any more",
       "a drop or flush before the frame's job took its licence (a drop before the configure "
       "step, a racing drop)"},
      {"FD(NULL)", kOrder, "a job found no licence for its frame",
       "a racing drop or flush: the frame's licence was handed back while its send was on its "
       "way"},
      {"null license, maybe flushed, skip execute", kOrder,
       "an enqueue job was not run and its send returned -1: its licence was gone",
       "a racing drop or flush: the frame's licence was handed back while its send was on its "
       "way"},
      {"FC not found ! maybe flushed", kOrder,
       "setConfigured or a job's completion came for a frame that had already left the pool",
       "a drop or flush of the frame while its job ran"},
      {"already finished", kOrder,
       "a drop came for a frame whose sensors were all enqueued; nothing was done",
       "a late drop: the frame had been enqueued by every sensor"},
      {"FC not found", kOrder, "a drop came for a frame that is not in the pool; nothing was done",
       "a late drop: the frame had already retired"},
      {"FC not exist, skip", kLook, "erase of a frame not in the pool", ""},
      {"still there", kLook, "the pool still holds a frame of the sensor", ""},
      {"license is null, skip", kLook, "an empty licence was handed back", ""},
  };
  WarningExplanation e;
  for (const Known& k : kKnown) {
    if (contains(kind, k.pattern)) {
      e.cls = k.cls;
      e.why = k.why;
      e.clientOrder = k.clientOrder;
      e.needsDropOrFlush = k.cls == kOrder;
      return e;
    }
  }
  e.why = kUnknownWarning;
  return e;
}

}  // namespace logread
}  // namespace orvcam
