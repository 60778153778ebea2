// end_signals - the signals that end a program, as something to wait for.
//
// Ownership  Owns its descriptor. The signals no longer end the process, nor do they when this is gone.
// Threads    The main thread makes it before there are others, which then do not take the signals either.
// Blocking   Nothing waits.
// Failures   std::system_error when the system has no descriptor for it.
#pragma once

#include "base/unique_fd.h"

#include <initializer_list>

namespace tools {

class end_signals {
public:
    explicit end_signals(std::initializer_list<int> signals);
    // Readable when one has come.
    int descriptor() const { return m_fd.get(); }
    // Whether one has come since it was asked last.
    bool take() const;

private:
    rtls::unique_fd m_fd;
};

} // namespace tools
