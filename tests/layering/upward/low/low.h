#pragma once

#include "high/high.h"
