// Runs a fuzz target over the files, and the folders of files, that are named, for builds without the fuzzer.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  std::vector<std::filesystem::path> inputs;
  for (int i = 1; i < argc; ++i) {
    if (std::filesystem::is_directory(argv[i])) {
      std::copy(std::filesystem::directory_iterator(argv[i]), {}, std::back_inserter(inputs));
    } else {
      inputs.emplace_back(argv[i]);
    }
  }
  std::sort(inputs.begin(), inputs.end());
  for (const std::filesystem::path& path : inputs) {
    std::cout << path << std::endl;
    std::ifstream file(path, std::ios::binary);
    if (!file) return 1;
    const std::vector<char> input(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
  }
  return inputs.empty() ? 1 : 0;
}
