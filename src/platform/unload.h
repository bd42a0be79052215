// A hook run when the library is unloaded from the process.
#pragma once

namespace quillon::platform {

// Sets the function run when the shared library is unloaded (a destructor
// function where the library is an ELF object, DllMain's process detach on
// Windows). Set once, at load.
void SetUnloadHook(void (*hook)());

}  // namespace quillon::platform
