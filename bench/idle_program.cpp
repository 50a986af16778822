// A program of about 1 MiB that ends at once.
namespace {

// Data that neither the compiler nor the linker can remove.
volatile unsigned char filling[1'000'000] = {1};  // NOLINT(modernize-avoid-c-arrays)

}  // namespace

int main() {
  return filling[0] - 1;
}
