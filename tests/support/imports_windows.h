// Calls at the system, of this program or of the C runtime, which is a DLL: tables of imports can be
// changed while a program runs.
#pragma once

namespace kvtest {

// Puts `function` in the place of a loaded module's import of that name, of this program's for a null
// module; returns the one that stood there.
void* ReplaceImport(const char* module, const char* name, void* function);

}  // namespace kvtest
