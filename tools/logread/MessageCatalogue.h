#pragma once
// The deliverer's messages this tool knows, in one place: its fatal assertions, each with the
// client rule it stands for (or the library invariant it guards), and its warnings, each with
// what it means for the verdict. Recognising a fatal or warning text in a layout without
// levels (raw, thread) and explaining one in a report read the same tables.
#include <string>
#include <string_view>

namespace orvcam {
namespace logread {

// A message text with every run of digits (and a leading minus) replaced by "N": the kind of
// a warning, the shape a fatal message is known by.
std::string shape(std::string_view text);

// Whether `text` is one of the deliverer's fatal assertion messages, or a warning it writes.
bool isFatalText(std::string_view text);
bool isWarningText(std::string_view text);

// The client-protocol rule a fatal assertion message stands for, as "rule broken: don't ..."
// (the never-do table of docs/integrating.md), or "not a client rule: ..." for the library's
// own invariants.
std::string ruleForFatal(const std::string& message);

// What a warning kind means for the verdict: nothing on its own (benign), the trace of a call
// order the client protocol allows (named), or something to look at.
enum class WarningClass { Benign, ClientOrder, Attention };
struct WarningExplanation {
  WarningClass cls = WarningClass::Attention;
  std::string why;                // one line
  std::string clientOrder;        // ClientOrder: the legal call order that provokes it
  bool needsDropOrFlush = false;  // that call order is a drop or a flush
};
WarningExplanation explainWarning(const std::string& kind);

}  // namespace logread
}  // namespace orvcam
