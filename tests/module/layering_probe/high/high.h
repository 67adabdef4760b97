#pragma once
#include "low/low.h"
