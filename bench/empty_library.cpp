// A library that contains only the runtime.
extern "C" __declspec(dllexport) int Nothing();

int Nothing() {
  return 0;
}
