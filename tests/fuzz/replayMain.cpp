/**
 * Runs a fuzz driver over saved inputs, without a fuzzer: replay FILE_OR_DIRECTORY...
 *
 * Each file's name is printed ahead of its run, so the last line before a crash names the input. The exit status is 0
 * only if all ran and there was at least one: a test with nothing to replay has lost its inputs.
 */

#include "fuzz.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{

std::vector<std::filesystem::path> filesIn(const std::filesystem::path& path)
{
    if (!std::filesystem::is_directory(path)) {
        return {path};
    }
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(path)) {
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool replay(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
    if (!file) {
        fprintf(stderr, "%s can't be read\n", path.c_str());
        return false;
    }
    printf("%s\n", path.c_str());
    fflush(stdout);
    (void)LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    size_t numReplayed = 0;
    for (int i = 1; i < argc; i++) {
        for (const std::filesystem::path& path : filesIn(argv[i])) {
            if (!replay(path)) {
                return 1;
            }
            numReplayed++;
        }
    }
    printf("%zu inputs replayed\n", numReplayed);
    return numReplayed > 0 ? 0 : 1;
}
