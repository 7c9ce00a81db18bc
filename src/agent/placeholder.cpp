int vumoagentPlaceholder = 0;  // removed once the area has real sources
