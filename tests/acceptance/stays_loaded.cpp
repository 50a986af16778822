// A deliberately broken module for the acceptance kit: it cannot be unloaded.
#include <windows.h>

namespace {

__attribute__((constructor)) void Pin() {
  HMODULE module = nullptr;
  GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_PIN | GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS,
                     reinterpret_cast<const wchar_t*>(&Pin), &module);
}

}  // namespace
