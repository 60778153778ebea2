#include "terminal_filter.h"

#include "common.h"
#include "logger.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr size_t pattern_size_limit = 512;
constexpr uint64_t repetition_limit = 65'536; // of the product of all repetition counts

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

// Reads a pattern from left to right, construct by construct.
class pattern_scanner {
public:
    explicit pattern_scanner(std::string_view pattern) : m_rest(pattern) {}

    bool is_affordable()
    {
        while (!m_rest.empty() && m_affordable)
            skip_construct();
        return m_affordable;
    }

private:
    void skip_construct()
    {
        const char c = m_rest.front();
        m_rest.remove_prefix(1);
        if (c == '\\')
            skip_escape();
        else if (c == '[')
            skip_bracket();
        else if (c == '{')
            skip_interval();
    }

    void skip_escape()
    {
        if (m_rest.empty())
            return;
        m_affordable = !is_digit(m_rest.front()); // a back-reference
        m_rest.remove_prefix(1);
    }

    // "[...]": nothing in it repeats or escapes. A "]" in front is a member, as is one in "[:...:]".
    void skip_bracket()
    {
        if (m_rest.starts_with('^'))
            m_rest.remove_prefix(1);
        if (m_rest.starts_with(']'))
            m_rest.remove_prefix(1);
        while (!m_rest.empty() && m_rest.front() != ']') {
            const bool is_class =
                m_rest.starts_with("[:") || m_rest.starts_with("[=") || m_rest.starts_with("[.");
            if (is_class) {
                const char end[] = {m_rest[1], ']'};
                const size_t at = m_rest.find(std::string_view{end, 2}, 2);
                m_rest.remove_prefix(at == std::string_view::npos ? m_rest.size() : at + 2);
            } else {
                m_rest.remove_prefix(1);
            }
        }
        m_rest.remove_prefix(std::min<size_t>(1, m_rest.size()));
    }

    // "m}", "m,}", "m,n}" or ",n}"; anything else is left to the compiler to judge.
    void skip_interval()
    {
        const uint64_t low = take_number();
        uint64_t high = low;
        if (m_rest.starts_with(',')) {
            m_rest.remove_prefix(1);
            high = take_number();
        }
        m_repetitions *= std::max<uint64_t>({low, high, 1});
        m_affordable = m_repetitions <= repetition_limit;
    }

    uint64_t take_number()
    {
        uint64_t number = 0;
        while (!m_rest.empty() && is_digit(m_rest.front())) {
            number =
                std::min(number * 10 + static_cast<uint64_t>(m_rest.front() - '0'), repetition_limit + 1);
            m_rest.remove_prefix(1);
        }
        return number;
    }

    std::string_view m_rest;
    uint64_t m_repetitions = 1;
    bool m_affordable = true;
};

} // namespace

bool is_affordable_pattern(std::string_view pattern)
{
    return pattern.size() <= pattern_size_limit && pattern_scanner{pattern}.is_affordable();
}

regex_t* compile_filter(const char* pattern)
{
    auto* preg = static_cast<regex_t*>(std::malloc(sizeof(regex_t)));
    if (!preg) {
        logger_error(g_logger, str_out_of_memory, "command_grep");
        return nullptr;
    }
    errno = 0;
    if (is_affordable_pattern(pattern) && regcomp(preg, pattern, REG_EXTENDED | REG_NOSUB) == 0)
        return preg;
    const int error = errno;
    std::free(preg); // regcomp leaves nothing in it when it fails
    errno = error;
    return nullptr;
}
