// Runs a fuzz target over the files of a folder, for builds without the fuzzer.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <set>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  const std::set<std::filesystem::path> inputs(std::filesystem::directory_iterator(argv[1]), {});
  for (const std::filesystem::path& path : inputs) {
    std::cout << path << std::endl;
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> input(std::istreambuf_iterator<char>(file), {});
    LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
  }
  return inputs.empty() ? 1 : 0;
}
