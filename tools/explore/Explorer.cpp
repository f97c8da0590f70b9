#include "explore/Explorer.h"

#include <algorithm>
#include <chrono>
#include <random>

#include "explore/StateTable.h"

namespace orvcam {
namespace explore {

namespace {

char digit(uint32_t v) { return char(v < 10 ? '0' + v : 'a' + (v - 10)); }

int undigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  return -1;
}

// The thread that keeps running without a preemption at a point, as an option index.
size_t defaultOption(const ChoicePoint& p) {
  const auto& opts = *p.options;
  if (p.currentEnabled) {
    for (size_t i = 0; i < opts.size(); ++i) {
      if (!opts[i].spurious && int(opts[i].thread) == p.current) return i;
    }
  }
  return 0;
}

uint32_t cost(const ChoicePoint& p, size_t index) {
  const Choice& c = (*p.options)[index];
  return p.currentEnabled && (c.spurious || int(c.thread) != p.current) ? 1 : 0;
}

}  // namespace

// "s1:" then one base-36 digit per choice; a run of four or more equal digits is "d*N.".
std::string encodeReplay(uint32_t spurious, const std::vector<uint32_t>& choices) {
  std::string out = "s" + std::to_string(spurious) + ":";
  for (size_t i = 0; i < choices.size();) {
    size_t j = i;
    while (j < choices.size() && choices[j] == choices[i]) ++j;
    size_t n = j - i;
    if (n >= 4) {
      out += digit(choices[i]);
      out += "*" + std::to_string(n) + ".";
    } else {
      out.append(n, digit(choices[i]));
    }
    i = j;
  }
  return out;
}

bool decodeReplay(const std::string& text, uint32_t* spurious, std::vector<uint32_t>* choices) {
  choices->clear();
  if (text.size() < 3 || text[0] != 's') return false;
  size_t colon = text.find(':');
  if (colon == std::string::npos || colon == 1) return false;
  for (size_t i = 1; i < colon; ++i) {
    if (text[i] < '0' || text[i] > '9') return false;
  }
  *spurious = uint32_t(std::stoul(text.substr(1, colon - 1)));
  for (size_t i = colon + 1; i < text.size();) {
    int d = undigit(text[i]);
    if (d < 0) return false;
    ++i;
    size_t n = 1;
    if (i < text.size() && text[i] == '*') {
      size_t dot = text.find('.', i);
      if (dot == std::string::npos || dot == i + 1) return false;
      for (size_t k = i + 1; k < dot; ++k) {
        if (text[k] < '0' || text[k] > '9') return false;
      }
      n = std::stoul(text.substr(i + 1, dot - i - 1));
      i = dot + 1;
    }
    choices->insert(choices->end(), n, uint32_t(d));
  }
  return true;
}

std::string Verdict::replay() const { return encodeReplay(run.spuriousBudget, choices); }

Explorer::Explorer(TargetFactory factory, uint32_t spuriousBudget)
    : mFactory(std::move(factory)), mSpurious(spuriousBudget), mTarget(mFactory()) {
  mNames = mTarget->threadNames();
  // One schedule first, neither counted nor reported: what the program allocates once, on
  // first use, is then allocated, and every schedule after it makes the same blocks in the
  // same order, so that heap blocks get the same ids ("The library's memory" in Scheduler.h).
  if (Scheduler::memoryInstrumented()) {
    std::vector<uint32_t> choices;
    uint32_t preemptions = 0;
    runSchedule([](const ChoicePoint&) { return size_t(0); }, false, &choices, &preemptions);
  }
}

Explorer::~Explorer() { Scheduler::endSetups(); }

Verdict Explorer::runSchedule(const Chooser& chooser, bool record, std::vector<uint32_t>* choices,
                              uint32_t* preemptions) {
  RunOptions options;
  options.spuriousBudget = mSpurious;
  options.recordSteps = record;
  options.stepLimit = mStepLimit;
  choices->clear();
  *preemptions = 0;
  Chooser recording = [&](const ChoicePoint& p) {
    size_t index = chooser(p);
    if (index >= p.options->size()) index = 0;
    choices->push_back(uint32_t(index));
    *preemptions += cost(p, index);
    return index;
  };
  Verdict v;
  Scheduler::beginSetup();
  v.run = Scheduler::run(mTarget->begin(), mNames, recording, options);
  v.run.spuriousBudget = mSpurious;
  v.choices = *choices;
  v.preemptions = *preemptions;
  judge(&v);
  return v;
}

void Explorer::judge(Verdict* v) {
  RunResult& r = v->run;
  switch (r.outcome) {
    case Outcome::Completed: v->findings = mTarget->judgeCompleted(); break;
    case Outcome::Deadlock: {
      std::string text = "deadlock: every live thread is blocked";
      for (const auto& b : r.blocked) text += "\n    " + b.thread + " waits for " + b.waitsFor;
      v->findings.push_back(text);
      break;
    }
    case Outcome::Fatal:
      v->findings.push_back("fatal assertion on " + r.fatalThread + ": \"" + r.fatalMessage + "\"");
      break;
    case Outcome::StepLimit: {
      std::string text = "the schedule did not end within " + std::to_string(r.stepCount) +
                         " steps (a livelock?); threads left:";
      for (const auto& b : r.blocked) text += "\n    " + b.thread + " " + b.waitsFor;
      v->findings.push_back(text);
      break;
    }
  }
  if (r.outcome != Outcome::Completed) {
    for (auto& f : mTarget->judgeIncomplete()) v->findings.push_back(std::move(f));
    // The threads of this schedule stay parked inside the target: it is left to them, and
    // the next schedule gets a target of its own.
    (void)mTarget.release();
    mTarget = mFactory();
  }
  v->failed = !v->findings.empty();
}

namespace {

// A choice point of the depth-first search: its options, the one taken and those tried.
struct Node {
  std::vector<Choice> options;
  int current;
  bool currentEnabled;
  size_t chosen;
  std::vector<bool> tried;
  uint32_t before;  // preemptions before this point
};

// A point met for the first time, after the stack's deepest: its default option taken.
Node newNode(const ChoicePoint& p, const std::vector<Node>& stack) {
  Node n{*p.options,
         p.current,
         p.currentEnabled,
         defaultOption(p),
         std::vector<bool>(p.options->size()),
         0};
  if (!stack.empty()) {
    const Node& prev = stack.back();
    ChoicePoint pp{&prev.options, prev.current, prev.currentEnabled, 0};
    n.before = prev.before + cost(pp, prev.chosen);
  }
  return n;
}

// Moves to the deepest point with an untried option within the bound, dropping the points
// past it; false when none is left (the search is exhausted).
bool backtrack(std::vector<Node>* stack, int bound) {
  while (!stack->empty()) {
    Node& n = stack->back();
    ChoicePoint p{&n.options, n.current, n.currentEnabled, 0};
    for (size_t j = 0; j < n.options.size(); ++j) {
      if (n.tried[j]) continue;
      if (bound >= 0 && n.before + cost(p, j) > uint32_t(bound)) continue;
      n.tried[j] = true;
      n.chosen = j;
      return true;
    }
    stack->pop_back();
  }
  return false;
}

}  // namespace

Report Explorer::dfs(int bound, uint64_t limit) {
  std::vector<Node> stack;
  Report report;
  auto t0 = std::chrono::steady_clock::now();
  bool diverged = false;
  // States met at a choice point, with the fewest preemptions they were met with: every
  // schedule from there within the bound has been run (or is being run: a state cannot recur
  // on its own path, since steps only accumulate). Met again with as many preemptions or
  // more, the rest of the schedule runs with the default choices and is not branched.
  StateTable seen(mMaxStates ? StateTable::slotsFor(mMaxStates) : StateTable::kDefaultMaxSlots);
  auto tally = [&] {
    report.states = seen.size();
    report.stateTableFull = seen.full();
    report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  };
  double lastProgress = 0;
  for (;;) {
    size_t depth = 0;
    bool pruned = false;
    Chooser chooser = [&](const ChoicePoint& p) -> size_t {
      if (depth < stack.size()) {
        Node& n = stack[depth++];
        if (n.options != *p.options) diverged = true;
        return std::min(n.chosen, p.options->size() - 1);
      }
      Node n = newNode(p, stack);
      if (mCacheStates && !pruned && p.state) {
        // Who ran last matters only while it can go on: a switch away from it is a
        // preemption. When it cannot, every option is free and the state alone decides.
        uint64_t key =
            p.state ^ (p.currentEnabled ? uint64_t(p.current + 1) * 0x9e3779b97f4a7c15ull : 0);
        if (seen.metBefore(key, bound >= 0 ? n.before : 0)) {
          pruned = true;
          ++report.statesPruned;
        }
      }
      if (pruned) {
        n.tried.assign(n.tried.size(), true);
      } else {
        n.tried[n.chosen] = true;
      }
      stack.push_back(std::move(n));
      ++depth;
      return stack.back().chosen;
    };
    std::vector<uint32_t> choices;
    Verdict v = runCounted(chooser, &choices, &report);
    if (diverged && !v.failed) {
      v.failed = true;
      v.findings.push_back("the schedule did not replay: the same choices offered other options");
    }
    if (v.failed) {
      report.hasFailure = true;
      report.failure = std::move(v);
      break;
    }
    // Drop the points past this run's end (a run that ended earlier than its prefix), then
    // move to the deepest point with an untried option within the bound.
    if (stack.size() > choices.size()) stack.resize(choices.size());
    if (!backtrack(&stack, bound)) {
      report.exhausted = true;
      break;
    }
    if (limit && report.schedules >= limit) break;
    if ((report.schedules & 63) == 0 && (mTimeLimit > 0 || mProgress)) {
      tally();
      if (mTimeLimit > 0 && report.seconds >= mTimeLimit) break;
      if (mProgress && report.seconds - lastProgress >= mProgressEvery) {
        lastProgress = report.seconds;
        mProgress(report);
      }
    }
  }
  tally();
  return report;
}

Report Explorer::random(uint64_t count, uint64_t seed, uint32_t pctDepth) {
  Report report;
  auto t0 = std::chrono::steady_clock::now();
  std::mt19937_64 rng(seed);
  uint64_t expectedChoices = 50;  // PCT's estimate of a schedule's length, refined as it runs
  for (uint64_t i = 0; i < count; ++i) {
    Chooser chooser;
    std::vector<double> priority;
    std::vector<uint64_t> changeAt;
    uint64_t point = 0;
    if (pctDepth == 0) {
      chooser = [&](const ChoicePoint& p) {
        return size_t(std::uniform_int_distribution<size_t>(0, p.options->size() - 1)(rng));
      };
    } else {
      priority.resize(mNames.size());
      for (size_t t = 0; t < priority.size(); ++t) priority[t] = double(pctDepth + t);
      std::shuffle(priority.begin(), priority.end(), rng);
      for (uint32_t k = 1; k < pctDepth; ++k) {
        changeAt.push_back(std::uniform_int_distribution<uint64_t>(1, expectedChoices)(rng));
      }
      chooser = [&](const ChoicePoint& p) {
        ++point;
        // A thread started during the run gets a random place among the first priorities.
        for (const Choice& c : *p.options) {
          while (priority.size() <= c.thread) {
            priority.push_back(std::uniform_real_distribution<double>(
                double(pctDepth), double(pctDepth + priority.size()))(rng));
          }
        }
        auto best = [&] {
          size_t b = 0;
          double bp = -1e9;
          for (size_t j = 0; j < p.options->size(); ++j) {
            const Choice& c = (*p.options)[j];
            double pr = priority[c.thread] - (c.spurious ? 1000.0 : 0.0);
            if (pr > bp) {
              bp = pr;
              b = j;
            }
          }
          return b;
        };
        size_t b = best();
        for (size_t k = 0; k < changeAt.size(); ++k) {
          if (changeAt[k] == point) {
            priority[(*p.options)[b].thread] = double(k);
            b = best();
          }
        }
        return b;
      };
    }
    std::vector<uint32_t> choices;
    Verdict v = runCounted(chooser, &choices, &report);
    expectedChoices = std::max<uint64_t>(expectedChoices, choices.size());
    if (v.failed) {
      report.hasFailure = true;
      report.failure = std::move(v);
      break;
    }
    if (mTimeLimit > 0 && (report.schedules & 63) == 0 &&
        std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count() >=
            mTimeLimit) {
      break;
    }
  }
  report.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  return report;
}

Verdict Explorer::replay(const std::vector<uint32_t>& choices, bool record) {
  size_t at = 0;
  Chooser chooser = [&](const ChoicePoint& p) {
    return at < choices.size() ? size_t(choices[at++]) : defaultOption(p);
  };
  std::vector<uint32_t> seen;
  uint32_t preemptions = 0;
  return runSchedule(chooser, record, &seen, &preemptions);
}

Verdict Explorer::runCounted(const Chooser& chooser, std::vector<uint32_t>* choices,
                             Report* report) {
  uint32_t preemptions = 0;
  Verdict v = runSchedule(chooser, false, choices, &preemptions);
  ++report->schedules;
  report->deepestSteps = std::max(report->deepestSteps, v.run.stepCount);
  report->deepestChoices = std::max(report->deepestChoices, uint32_t(choices->size()));
  return v;
}

Verdict Explorer::shrink(const Verdict& failing, uint64_t limit) {
  for (uint32_t bound = 0; bound < failing.preemptions; ++bound) {
    Report r = dfs(int(bound), limit);
    if (r.hasFailure) return r.failure;
  }
  return failing;
}

std::string describeSchedule(const Verdict& v, const std::vector<std::string>& given) {
  const std::vector<std::string>& names = v.run.threadNames.empty() ? given : v.run.threadNames;
  std::string out;
  size_t width = 0;
  for (const auto& n : names) width = std::max(width, n.size());
  uint64_t i = 0;
  for (const StepRecord& s : v.run.steps) {
    char num[16];
    std::snprintf(num, sizeof num, "%5llu  ", static_cast<unsigned long long>(++i));
    std::string name = s.thread < names.size() ? names[s.thread] : "?";
    name.resize(width, ' ');
    std::string op = s.spurious ? "spurious wake-up" : opKindName(s.op);
    std::string line = num + name + "  " + op;
    if (s.object) line += " " + Scheduler::objectName(s.object);
    if (s.other >= 0) line += " " + (size_t(s.other) < names.size() ? names[size_t(s.other)] : "?");
    if (s.caller) line += "  at " + describeCaller(s.caller);
    out += line + "\n";
  }
  return out;
}

std::string chromeTrace(const Verdict& v, const std::vector<std::string>& given) {
  const std::vector<std::string>& names = v.run.threadNames.empty() ? given : v.run.threadNames;
  auto quote = [](const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
      if (c == '"' || c == '\\') out += '\\';
      out += c;
    }
    return out + "\"";
  };
  std::string out = "{\"traceEvents\":[\n";
  for (size_t t = 0; t < names.size(); ++t) {
    out += "{\"name\":\"thread_name\",\"ph\":\"M\",\"pid\":1,\"tid\":" + std::to_string(t) +
           ",\"args\":{\"name\":" + quote(names[t]) + "}},\n";
  }
  uint64_t ts = 0;
  for (const StepRecord& s : v.run.steps) {
    std::string name = s.spurious ? "spurious wake-up" : opKindName(s.op);
    if (s.object) name += " " + Scheduler::objectName(s.object);
    if (s.other >= 0 && size_t(s.other) < names.size()) name += " " + names[size_t(s.other)];
    out += "{\"name\":" + quote(name) +
           ",\"ph\":\"X\",\"pid\":1,\"tid\":" + std::to_string(s.thread) +
           ",\"ts\":" + std::to_string(ts) +
           ",\"dur\":1,\"args\":{\"at\":" + quote(describeCaller(s.caller)) + "}},\n";
    ++ts;
  }
  out += "{\"name\":\"end\",\"ph\":\"i\",\"s\":\"g\",\"pid\":1,\"tid\":0,\"ts\":" +
         std::to_string(ts) + "}\n]}\n";
  return out;
}

}  // namespace explore
}  // namespace orvcam
