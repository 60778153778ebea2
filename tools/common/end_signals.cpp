#include "common/end_signals.h"

#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace tools {

end_signals::end_signals(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_fd = rtls::unique_fd{::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK)};
    if (!m_fd)
        throw std::system_error(errno, std::generic_category(), "signalfd");
}

bool end_signals::take() const
{
    signalfd_siginfo which{};
    return ::read(m_fd.get(), &which, sizeof which) == sizeof which;
}

} // namespace tools
