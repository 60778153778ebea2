// posix_regex - owner of a compiled POSIX regular expression.
//
// Threads    Any, one at a time. Patterns are our own: what matching costs is theirs to bound.
// Failures   An expression that did not compile says so; nothing throws.
#pragma once

#include <regex.h>

#include <array>
#include <cstddef>

namespace rtls {

class posix_regex {
public:
    // Check with is_compiled(); errno is as regcomp leaves it.
    posix_regex(const char* pattern, int flags) : m_compiled{regcomp(&m_regex, pattern, flags) == 0} {}
    ~posix_regex()
    {
        if (m_compiled)
            regfree(&m_regex);
    }
    posix_regex(const posix_regex&) = delete;
    posix_regex& operator=(const posix_regex&) = delete;

    bool is_compiled() const { return m_compiled; }

    // On a match the groups hold offsets into `text`. Only for an expression that is_compiled().
    template <size_t N>
    bool search(const char* text, std::array<regmatch_t, N>& groups) const
    {
        return regexec(&m_regex, text, N, groups.data(), 0) == 0;
    }

private:
    regex_t m_regex{};
    bool m_compiled;
};

} // namespace rtls
