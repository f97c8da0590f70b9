#include "TraceCheck.h"

#include <map>
#include <set>
#include <tuple>

namespace orvcam {
namespace test {

namespace {

using json = nlohmann::json;

std::string describe(size_t index, const json& e) {
  std::string ph = e.contains("ph") && e["ph"].is_string() ? e["ph"].get<std::string>() : "?";
  std::string name =
      e.contains("name") && e["name"].is_string() ? e["name"].get<std::string>() : "";
  return "event " + std::to_string(index) + " (ph " + ph + ", name \"" + name + "\")";
}

std::string idOf(const json& e) { return e.contains("id") ? e["id"].dump() : ""; }

}  // namespace

std::vector<std::string> checkTraceStructure(const json& trace, bool complete) {
  std::vector<std::string> problems;
  const json* events = &trace;
  if (trace.is_object()) {
    if (!trace.contains("traceEvents") || !trace["traceEvents"].is_array()) {
      return {"an object trace needs a \"traceEvents\" array"};
    }
    events = &trace["traceEvents"];
  } else if (!trace.is_array()) {
    return {"a trace is an array of events or an object with \"traceEvents\""};
  }
  struct Open {
    std::string name;
    double ts;
  };
  std::map<std::pair<int64_t, int64_t>, std::vector<Open>> stacks;         // (pid, tid)
  std::map<std::tuple<std::string, std::string, std::string>, int> async;  // (cat, id, name)
  std::map<std::pair<std::string, std::string>, size_t> flows;             // (cat, id)
  static const std::set<std::string> kMetadata = {"process_name", "process_sort_index",
                                                  "thread_name", "thread_sort_index"};
  for (size_t i = 0; i < events->size(); ++i) {
    const json& e = (*events)[i];
    auto bad = [&](const std::string& what) { problems.push_back(describe(i, e) + ": " + what); };
    if (!e.is_object()) {
      bad("not an object");
      continue;
    }
    if (!e.contains("ph") || !e["ph"].is_string() || e["ph"].get<std::string>().size() != 1) {
      bad("no one-letter \"ph\"");
      continue;
    }
    const char ph = e["ph"].get<std::string>()[0];
    if (!e.contains("pid") || !e["pid"].is_number_integer() || !e.contains("tid") ||
        !e["tid"].is_number_integer()) {
      bad("no integer \"pid\" and \"tid\"");
      continue;
    }
    bool named = e.contains("name") && e["name"].is_string();
    if (!named && ph != 'E') bad("no \"name\"");
    bool timed = e.contains("ts") && e["ts"].is_number();
    if (!timed && ph != 'M') {
      bad("no numeric \"ts\"");
      continue;
    }
    double ts = timed ? e["ts"].get<double>() : 0;
    std::string name = named ? e["name"].get<std::string>() : "";
    std::string cat = e.contains("cat") && e["cat"].is_string() ? e["cat"].get<std::string>() : "";
    auto thread = std::make_pair(e["pid"].get<int64_t>(), e["tid"].get<int64_t>());
    switch (ph) {
      case 'B': stacks[thread].push_back({name, ts}); break;
      case 'E': {
        auto& stack = stacks[thread];
        if (stack.empty()) {
          bad("ends a section on a thread with none open");
          break;
        }
        if (named && name != stack.back().name) {
          bad("ends \"" + stack.back().name + "\", the innermost open section, by another name");
        }
        if (ts < stack.back().ts) bad("ends before its section began");
        stack.pop_back();
        break;
      }
      case 'X':
        if (!e.contains("dur") || !e["dur"].is_number() || e["dur"].get<double>() < 0) {
          bad("a complete event needs a non-negative \"dur\"");
        }
        break;
      case 'i':
      case 'I':
        if (e.contains("s") &&
            (!e["s"].is_string() ||
             std::string("gpt").find(e["s"].get<std::string>()) == std::string::npos)) {
          bad("instant scope \"s\" must be g, p or t");
        }
        break;
      case 'b':
      case 'e': {
        if (!e.contains("id")) {
          bad("an async event needs an \"id\"");
          break;
        }
        int& depth = async[{cat, idOf(e), name}];
        if (ph == 'b') {
          ++depth;
        } else if (depth == 0) {
          bad("ends an async track (cat \"" + cat + "\", id " + idOf(e) + ") that is not open");
        } else {
          --depth;
        }
        break;
      }
      case 's':
      case 't':
      case 'f': {
        if (!e.contains("id")) {
          bad("a flow event needs an \"id\"");
          break;
        }
        auto key = std::make_pair(cat, idOf(e));
        if (ph == 's') {
          if (flows.count(key)) bad("starts flow id " + idOf(e) + " twice");
          flows[key] = i;
        } else if (!flows.count(key)) {
          bad("continues or ends flow id " + idOf(e) + " that never started");
        } else if (ph == 'f') {
          flows.erase(key);
        }
        break;
      }
      case 'C':
        if (!e.contains("args") || !e["args"].is_object() || e["args"].empty()) {
          bad("a counter needs \"args\" with its values");
          break;
        }
        for (const auto& v : e["args"].items()) {
          if (!v.value().is_number()) bad("counter value \"" + v.key() + "\" is not a number");
        }
        break;
      case 'M':
        if (!kMetadata.count(name)) {
          bad("unknown metadata");
        } else if (!e.contains("args") || !e["args"].is_object()) {
          bad("metadata needs \"args\"");
        } else if (name.find("_name") != std::string::npos) {
          if (!e["args"].contains("name") || !e["args"]["name"].is_string()) {
            bad("a name record needs a string \"args.name\"");
          }
        } else if (!e["args"].contains("sort_index") ||
                   !e["args"]["sort_index"].is_number_integer()) {
          bad("a sort record needs an integer \"args.sort_index\"");
        }
        break;
      default: bad("unknown phase");
    }
  }
  if (complete) {
    for (const auto& s : stacks) {
      for (const Open& o : s.second) {
        problems.push_back("section \"" + o.name + "\" on thread " +
                           std::to_string(s.first.second) + " never ends");
      }
    }
    for (const auto& a : async) {
      if (a.second > 0) {
        problems.push_back("async track \"" + std::get<2>(a.first) + "\" id " +
                           std::get<1>(a.first) + " never ends");
      }
    }
    for (const auto& f : flows) {
      problems.push_back("flow id " + f.first.second + " started at event " +
                         std::to_string(f.second) + " never ends");
    }
  }
  return problems;
}

}  // namespace test
}  // namespace orvcam
