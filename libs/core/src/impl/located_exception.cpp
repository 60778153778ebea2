#include "impl/located_exception.h"

#include <sstream>
#include <utility>

namespace tav::libs::core {

located_exception::located_exception(const source_location& location, std::string text)
    : m_location(location), m_text(std::move(text))
{
}

located_exception::~located_exception() = default;

const char* located_exception::what() const noexcept
{
    return m_text.c_str();
}

void located_exception::write(std::ostream& stream) const
{
    stream << m_location.short_file() << ':' << m_location.m_line << ' ' << m_location.short_function()
           << ": " << m_text;
}

std::string exception_to_string(const located_exception& exception)
{
    std::ostringstream stream;
    exception.write(stream);
    return stream.str();
}

std::string exception_to_string()
{
    try {
        throw;
    } catch (const located_exception& exception) {
        return exception_to_string(exception);
    } catch (const std::exception& exception) {
        return std::string("std::exception::what(): ") + exception.what();
    } catch (...) {
        return "Unknown exception";
    }
}

} // namespace tav::libs::core
