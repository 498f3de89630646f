// A directory for one test's sockets and files.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

class TemporaryDirectory
{
  public:
    TemporaryDirectory()
    {
        std::string name = std::filesystem::temp_directory_path() / "switch-test-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("no temporary directory");
        path_ = name;
    }
    ~TemporaryDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory &) = delete;
    TemporaryDirectory &operator=(const TemporaryDirectory &) = delete;

    std::string operator/(const std::string &name) const { return path_ / name; }

  private:
    std::filesystem::path path_;
};
