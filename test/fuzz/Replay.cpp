// Calls a fuzz target with every file of a folder.
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>

extern "C" int LLVMFuzzerTestOneInput(char const* data, std::size_t size);

int main(int, char** argv) {
    int inputs = 0;
    for (auto const& entry : std::filesystem::directory_iterator(argv[1])) {
        std::cout << entry.path() << std::endl; // before whatever goes wrong
        std::ostringstream input;
        input << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        LLVMFuzzerTestOneInput(input.view().data(), input.view().size());
        ++inputs;
    }
    return inputs == 0; // an empty corpus checks nothing
}
