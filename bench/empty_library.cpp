// A library with nothing in it but the runtime.
extern "C" __declspec(dllexport) int Nothing();

int Nothing() {
  return 0;
}
