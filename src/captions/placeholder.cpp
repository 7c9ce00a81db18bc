int vumocaptionsPlaceholder = 0;  // removed once the area has real sources
