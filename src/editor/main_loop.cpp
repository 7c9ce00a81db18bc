#include "editor/main_loop.h"

// The interface has no code of its own; this unit keeps the area a library from its first day.
