// Runs the fuzz target's entry function on every file of the folder named, with any compiler. Fails
// when there is none, and when that took too much memory.
#include <sys/resource.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  constexpr long kMaxKilobytes = 512 * 1024;  // room for a sanitizer's own memory
  LLVMFuzzerInitialize(&argc, &argv);
  int files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
    std::ifstream file(entry.path(), std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    ++files;
  }
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  std::printf("%d inputs, %ld KiB\n", files, usage.ru_maxrss);
  return files > 0 && usage.ru_maxrss < kMaxKilobytes ? 0 : 1;
}
