/* Runs a target with inputs that were kept: TARGET FILE|FOLDER... The number of inputs goes to the
 * standard output; without any the exit status is 1. A finding ends the process by a signal, after
 * the name of its input on the standard error. */
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

#include "input.h"

extern "C" {
int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
__attribute__((weak)) int LLVMFuzzerInitialize(int* argc, char*** argv);
}

namespace {

void run(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    const std::string bytes((std::istreambuf_iterator<char>(file)), {});
    const std::vector<uint8_t> exact(bytes.begin(), bytes.end()); /* reads behind it are seen */
    (void)LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

void list(const std::filesystem::path& path, std::vector<std::filesystem::path>* files) {
    if (!std::filesystem::is_directory(path)) {
        files->push_back(path);
        return;
    }
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files->push_back(entry.path());
    }
}

} // namespace

int main(int argc, char** argv) {
    if (LLVMFuzzerInitialize != nullptr) {
        (void)LLVMFuzzerInitialize(&argc, &argv);
    }
    std::vector<std::filesystem::path> files;
    for (int i = 1; i < argc; ++i) {
        list(argv[i], &files);
    }
    std::sort(files.begin(), files.end());
    for (const auto& file : files) {
        fprintf(stderr, "%s\n", file.filename().c_str());
        run(file);
    }
    printf("%zu inputs\n", files.size());
    return files.empty() ? 1 : 0;
}
