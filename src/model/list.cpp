#include "model/list.h"

#include "plugin/log.h"

namespace qv {

void LogListTooLong() { logging::Log(logging::kError, L"qv::List::Add", L"list too long"); }

}  // namespace qv
