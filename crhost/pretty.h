#pragma once
// cr-host's output for a person (--pretty) instead of a program: each JSON
// object the host would write becomes a few lines of text.
//   - an explain answer: its tree drawn indented, one node a line, with
//     ✓ (true), ✗ (false) or ? (no state), the node's data and what it saw;
//   - a history answer: one line per evaluation (time, triggers, true
//     rules, runs, rules not run and why, a retry);
//   - a policy run or an event: one line with its time;
//   - any other answer: its id, method or action and status (with the
//     status's name and error when it failed), then its other members as
//     compact JSON;
//   - a refused line: its number and the reason.
// Pure functions; any thread.
#include <string>

#include <json/value.h>

namespace crhost {

// The text for `object`, ending with a newline.
std::string PrettyText(const Json::Value& object);

}  // namespace crhost
