// Replays inputs through a fuzz target when the build has no libFuzzer, so
// corpora and crash files can be checked with gcc builds too.
#include <cstddef>
#include <cstdint>
#include <fstream>
#include <iostream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        std::ifstream in(argv[i], std::ios::binary);
        if (!in) {
            std::cerr << argv[i] << ": cannot read\n";
            return 1;
        }
        std::vector<char> bytes((std::istreambuf_iterator<char>(in)), {});
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    return 0;
}
