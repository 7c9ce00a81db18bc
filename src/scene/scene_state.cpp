#include "scene/scene_state.h"
