#pragma once

#include "extra/extra.h"
