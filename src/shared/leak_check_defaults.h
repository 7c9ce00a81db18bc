#pragma once
// For builds under AddressSanitizer: what the leak check at exit leaves out, allocations libraries
// make once and never free. Fontconfig keeps the font sets it parsed in caches of its own (and the
// program's font configuration lives for the whole process on purpose); x265 keeps a block of its
// own for every process that opened an encoder; libdbus, which the desktop's platform layer
// opens, keeps its connection's buffers until the process ends. Include this from exactly one source file
// of each executable (the runtime looks the function up in the executable).

#if defined(__SANITIZE_ADDRESS__)
extern "C" const char* __lsan_default_suppressions() {
  return "leak:libfontconfig.so\nleak:libx265.so\nleak:libdbus-1.so\n";
}
#endif
