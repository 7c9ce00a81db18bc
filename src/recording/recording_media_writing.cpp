#include "recording/recording_media_writing.h"
