// temp_file - a file of a test's own, gone when the test is.
//
// Each stands alone in a directory of its own, so that its name can be chosen freely.
// Threads    One at a time.
// Failures   Throws std::runtime_error or std::filesystem::filesystem_error.
#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace rtls {

class temp_file {
public:
    // Only the place; nothing is created there.
    explicit temp_file(const std::string& name);
    temp_file(const std::string& name, std::string_view content);
    ~temp_file();
    temp_file(const temp_file&) = delete;
    temp_file& operator=(const temp_file&) = delete;

    const char* path() const { return m_path.c_str(); }
    std::string url() const { return "file://" + m_path.string(); }

private:
    std::filesystem::path m_directory;
    std::filesystem::path m_path;
};

} // namespace rtls
