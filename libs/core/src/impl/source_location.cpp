#include "impl/source_location.h"

#include "impl/version.h"

namespace tav::libs::core {

std::string_view source_location::short_file() const
{
    const size_t root = constants::source_directory.size();
    return m_file.size() > root ? m_file.substr(root) : m_file;
}

std::string_view source_location::short_function() const
{
    const size_t parameters = m_function.find('(');
    if (parameters == std::string_view::npos)
        return m_function;
    // Parameters may name our namespace, too: look only in front of them.
    const std::string_view head = m_function.substr(0, parameters);
    const size_t name = head.rfind("tav::");
    return name == std::string_view::npos ? m_function : head.substr(name);
}

} // namespace tav::libs::core
