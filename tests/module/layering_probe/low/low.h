#pragma once
// Wrong on purpose: a lower library reaching up.
#include "high/high.h"
