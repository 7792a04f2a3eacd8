// Calls a fuzz target with every file of a folder.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size);

int main(int, char** argv) {
    int inputs = 0;
    for (auto const& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        std::vector<char> const input{std::istreambuf_iterator<char>(file), {}};
        std::puts(entry.path().c_str());
        std::fflush(stdout); // before whatever goes wrong
        LLVMFuzzerTestOneInput(input.data(), input.size());
        ++inputs;
    }
    return inputs == 0; // an empty corpus checks nothing
}
