#include "platform/unload.h"

#ifdef _WIN32
#include <windows.h>
#endif

namespace quillon::platform {

namespace {
void (*g_unload_hook)() = nullptr;

void RunUnloadHook() {
  if (g_unload_hook) g_unload_hook();
}
}  // namespace

void SetUnloadHook(void (*hook)()) { g_unload_hook = hook; }

}  // namespace quillon::platform

#ifdef _WIN32
// Runs the hook when the DLL is freed. At process exit (|reserved| set) the
// other DLLs may already be gone, and the system closes what is open.
BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_DETACH && reserved == nullptr) quillon::platform::RunUnloadHook();
  return TRUE;
}
#else
__attribute__((destructor)) static void QuillonOnUnload() { quillon::platform::RunUnloadHook(); }
#endif
