int vumoCliPlaceholder = 0;
