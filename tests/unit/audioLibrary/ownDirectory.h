#pragma once

/**
 * A temporary working directory of a test's own, entered for a scope and removed with its files at the end.
 */

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

class OwnDirectory
{
public:
    OwnDirectory() : before(std::filesystem::current_path())
    {
        std::string name = (std::filesystem::temp_directory_path() / "audioXXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("no temporary directory");
        }
        here = name;
        std::filesystem::current_path(here);
    }
    ~OwnDirectory()
    {
        std::filesystem::current_path(before);
        std::filesystem::remove_all(here);
    }
    OwnDirectory(const OwnDirectory&) = delete;
    OwnDirectory& operator=(const OwnDirectory&) = delete;

    void write(const std::string& name, const std::vector<short>& samples)
    {
        std::ofstream file(here / name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(samples.data()), static_cast<std::streamsize>(samples.size() * 2));
    }
    void remove(const std::string& name) { std::filesystem::remove(here / name); }

private:
    std::filesystem::path before, here;
};
