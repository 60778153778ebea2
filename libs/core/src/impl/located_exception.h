// located_exception - an exception that knows where it was raised, and the texts of any exception.
//
// Ownership  Owns its text; the place's own texts are borrowed (source_location).
// Threads    Any; nothing is shared.
// Failures   Making one, and the texts, throw std::bad_alloc.
#pragma once

#include "impl/source_location.h"

#include <exception>
#include <iosfwd>
#include <string>

namespace tav::libs::core {

// The interface for the exceptions of the library's users; nothing in the library derives from it.
class located_exception : public std::exception {
public:
    located_exception(const source_location& location, std::string text);
    ~located_exception() override;

    const char* what() const noexcept override; // the text alone

    // Writes "file:line function: text", file and function in their short forms.
    virtual void write(std::ostream& stream) const;

private:
    source_location m_location;
    std::string m_text;
};

// All that the exception says of itself by write().
std::string exception_to_string(const located_exception& exception);

// The same for the exception being handled, of whatever type. Only inside a handler.
std::string exception_to_string();

} // namespace tav::libs::core
