// temp_file - a file of a test's own, gone when the test is.
#pragma once

#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

namespace rtls {

class temp_file {
public:
    // Only the place; nothing is created.
    explicit temp_file(const std::string& name)
        : m_directory{std::filesystem::path{testing::TempDir()} / ("rtls-" + std::to_string(getpid()))},
          m_path{m_directory / name}
    {
        std::filesystem::create_directory(m_directory);
    }
    temp_file(const std::string& name, std::string_view content) : temp_file{name}
    {
        std::ofstream{m_path, std::ios::binary} << content;
    }
    ~temp_file()
    {
        std::error_code ignored; // the directory may hold other files still
        std::filesystem::remove(m_path, ignored);
        std::filesystem::remove(m_directory, ignored);
    }
    temp_file(const temp_file&) = delete;
    temp_file& operator=(const temp_file&) = delete;

    const char* path() const { return m_path.c_str(); }
    std::string url() const { return "file://" + m_path.string(); }

private:
    std::filesystem::path m_directory;
    std::filesystem::path m_path;
};

} // namespace rtls
