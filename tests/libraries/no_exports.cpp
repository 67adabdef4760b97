// A library that exports nothing: binding the logging façade to it must work
// and leave every message silently dropped.
namespace {
[[maybe_unused]] int unused_marker = 0;
}
