// Replays a fuzz corpus through the fuzz target with the normal toolchain:
// each file given (or each file in each folder given) is one input.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i])) {
      for (auto& e : fs::directory_iterator(argv[i]))
        if (e.is_regular_file()) files.push_back(e.path());
    } else {
      files.emplace_back(argv[i]);
    }
    for (auto& f : files) {
      std::ifstream in(f, std::ios::binary);
      std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), {});
      LLVMFuzzerTestOneInput(b.data(), b.size());
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return count ? 0 : 1;
}
