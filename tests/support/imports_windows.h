// Calls of the C runtime at the system, in this program and in every DLL that it loads: the runtime
// is a DLL itself, and its table of imports can be changed while it runs.
#pragma once

namespace kvtest {

// Puts `function` in the place of the runtime's import of that name; the one that stood there.
void* ReplaceImport(const char* name, void* function);

}  // namespace kvtest
