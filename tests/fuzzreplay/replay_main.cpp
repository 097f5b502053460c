// Replays fuzz corpora with the normal toolchain: every file named on the
// command line, and every file inside every folder named, is one input to
// LLVMFuzzerTestOneInput. A target reports a broken rule by aborting, so
// this program fails exactly when an input does; it also fails when it was
// given nothing to replay.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  namespace fs = std::filesystem;
  size_t count = 0;
  for (int i = 1; i < argc; ++i) {
    std::vector<fs::path> files;
    if (fs::is_directory(argv[i])) {
      for (auto& e : fs::recursive_directory_iterator(argv[i]))
        if (e.is_regular_file()) files.push_back(e.path());
    } else {
      files.emplace_back(argv[i]);
    }
    std::sort(files.begin(), files.end());
    for (auto& f : files) {
      std::ifstream in(f, std::ios::binary);
      if (!in) {
        std::fprintf(stderr, "cannot read %s\n", f.string().c_str());
        return 1;
      }
      std::vector<uint8_t> b((std::istreambuf_iterator<char>(in)), {});
      // A copy in a block of its own size, as libFuzzer passes it (never a
      // null pointer, even for an empty input).
      std::unique_ptr<uint8_t[]> exact(new uint8_t[b.size() ? b.size() : 1]);
      if (!b.empty()) std::memcpy(exact.get(), b.data(), b.size());
      LLVMFuzzerTestOneInput(exact.get(), b.size());
      ++count;
    }
  }
  std::printf("replayed %zu inputs\n", count);
  return count ? 0 : 1;
}
