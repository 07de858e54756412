// Runs a target once for each file of a folder, where libFuzzer is not to be had.

#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "Fuzz.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " FOLDER\n";
        return 2;
    }
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::cout << entry.path().string() << std::endl;  // with a flush: the target may abort
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
        ++count;
    }
    if (count == 0) std::cerr << argv[1] << ": no files\n";
    return count == 0 ? 1 : 0;
}
