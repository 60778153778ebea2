#include "support/temp_file.h"

#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace rtls {

static std::filesystem::path new_directory()
{
    std::string path = std::filesystem::temp_directory_path() / "rtls-test-XXXXXX";
    if (!mkdtemp(path.data()))
        throw std::runtime_error("temp_file: no directory");
    return path;
}

temp_file::temp_file(const std::string& name) : m_directory{new_directory()}, m_path{m_directory / name} {}

temp_file::temp_file(const std::string& name, std::string_view content) : temp_file{name}
{
    std::ofstream stream{m_path, std::ios::binary};
    if (!(stream << content).flush())
        throw std::runtime_error("temp_file: cannot write");
}

temp_file::~temp_file()
{
    std::error_code ignored; // a destructor has nobody to tell
    std::filesystem::remove_all(m_directory, ignored);
}

} // namespace rtls
