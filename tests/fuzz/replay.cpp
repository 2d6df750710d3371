// Runs a fuzz target over the files of the folders that are named, for builds without the fuzzer.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv);
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size);

int main(int argc, char** argv) {
  LLVMFuzzerInitialize(&argc, &argv);
  int replayed = 0;
  for (int i = 1; i < argc; ++i) {
    for (const auto& entry : std::filesystem::directory_iterator(argv[i])) {
      std::ifstream file(entry.path(), std::ios::binary);
      const std::vector<char> input(std::istreambuf_iterator<char>(file), {});
      std::cout << entry.path() << std::endl;
      LLVMFuzzerTestOneInput(reinterpret_cast<const unsigned char*>(input.data()), input.size());
      ++replayed;
    }
  }
  return replayed > 0 ? 0 : 1;
}
