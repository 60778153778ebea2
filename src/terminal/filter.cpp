#include "terminal/filter.h"

#include "base/common.h"
#include "base/logger.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <new>
#include <optional>

namespace rtls {

// Measured with random patterns: within these limits none took more than half a second or 100 MB.
static constexpr size_t pattern_size_limit = 512;
static constexpr uint64_t repetition_limit = 65'536;  // of the product of all repetition counts
static constexpr uint64_t fixed_size_limit = 131'072; // of an expanded pattern without options
static constexpr uint64_t size_limit = 512;           // of one with options: they cost by the third power
static constexpr uint64_t options_limit = 512;
static constexpr uint64_t idling_limit = 16; // costs exponentially
static constexpr uint64_t idling_in_loop = 4;
static constexpr uint64_t beyond_all_limits = 1 << 20;

static uint64_t capped(uint64_t number)
{
    return std::min(number, beyond_all_limits);
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

namespace {

// What a piece of a pattern has become when all repetitions are written out.
struct pattern_cost {
    uint64_t size = 0;        // characters, sets and groups
    uint64_t options = 0;     // points where it may go on in two ways
    uint64_t idling = 0;      // edges of words and lines, and repetitions of what may match nothing
    bool may_be_empty = true; // it matches the empty text

    void append(const pattern_cost& next)
    {
        size = capped(size + next.size);
        options = capped(options + next.options);
        idling = capped(idling + next.idling);
        may_be_empty = may_be_empty && next.may_be_empty;
    }
    void add_alternative(const pattern_cost& other)
    {
        const bool one_may_be_empty = may_be_empty || other.may_be_empty;
        append(other);
        options = capped(options + 1);
        may_be_empty = one_may_be_empty;
    }
    // At least `low` times and at most `high` times.
    void repeat(uint64_t low, uint64_t high)
    {
        const uint64_t copies = std::max<uint64_t>(high, 1);
        size = capped(size * copies);
        options = capped(options * copies + (high - low));
        idling = capped(idling * copies + (may_be_empty ? copies : 0));
        may_be_empty = may_be_empty || low == 0;
    }
    // At least `low` times, without an upper bound: `low` copies, and one that loops.
    void repeat_from(uint64_t low)
    {
        const uint64_t idle_loop = may_be_empty ? options + idling_in_loop * idling : 0;
        repeat(low, low + 1);
        idling = capped(idling + idle_loop);
    }
};

} // namespace

static bool is_within_limits(const pattern_cost& total)
{
    return total.size <= (total.options == 0 ? fixed_size_limit : size_limit) &&
           total.options <= options_limit && total.idling <= idling_limit;
}

namespace {

// Reads a pattern from left to right and sums up its cost. What is no valid pattern gets some cost or
// other: the compiler refuses it anyway.
class pattern_scanner {
public:
    explicit pattern_scanner(std::string_view pattern) : m_rest(pattern) {}

    bool is_affordable()
    {
        while (!m_rest.empty())
            take_construct();
        while (m_depth > 0)
            close_group();
        const pattern_cost total = current().finish();
        return !m_refers_back && m_repetitions <= repetition_limit && is_within_limits(total);
    }

private:
    struct pattern_group {
        std::optional<pattern_cost> alternatives; // the branches before the current one
        pattern_cost branch;                      // the current one, without its last atom
        pattern_cost atom;                        // which a repetition sign would repeat

        void start_atom(const pattern_cost& next)
        {
            branch.append(atom);
            atom = next;
        }
        void start_branch()
        {
            start_atom({});
            if (alternatives)
                alternatives->add_alternative(branch);
            else
                alternatives = branch;
            branch = {};
        }
        pattern_cost finish()
        {
            start_branch();
            return *alternatives;
        }
    };

    char take()
    {
        const char c = m_rest.front();
        m_rest.remove_prefix(1);
        return c;
    }

    bool take_if(char c)
    {
        const bool is_next = m_rest.starts_with(c);
        m_rest.remove_prefix(is_next ? 1 : 0);
        return is_next;
    }

    void take_construct()
    {
        constexpr pattern_cost one_character{1, 0, 0, false};
        constexpr pattern_cost one_position{1, 0, 1, true};
        switch (const char c = take()) {
        case '\\':
            current().start_atom(take_escaped_is_position() ? one_position : one_character);
            break;
        case '[':
            skip_set();
            current().start_atom(one_character);
            break;
        case '^':
        case '$':
            current().start_atom(one_position);
            break;
        case '(':
            m_groups[++m_depth] = {};
            break;
        case ')':
            if (m_depth > 0)
                close_group();
            break;
        case '|':
            current().start_branch();
            break;
        case '*':
        case '+':
        case '?':
            repeat_atom(c);
            break;
        case '{':
            repeat_atom_by_interval();
            break;
        default:
            current().start_atom(one_character);
        }
    }

    pattern_group& current() { return m_groups[m_depth]; }

    // The group becomes an atom of the one around it.
    void close_group()
    {
        pattern_cost group = current().finish();
        group.size = capped(group.size + 1);
        --m_depth;
        current().start_atom(group);
    }

    // What stands behind a backslash: a word's or a line's edge, or something to match.
    bool take_escaped_is_position()
    {
        if (m_rest.empty())
            return false;
        const char c = take();
        m_refers_back = m_refers_back || (is_digit(c) && c != '0');
        return std::string_view{"bB<>`'"}.find(c) != std::string_view::npos;
    }

    void repeat_atom(char sign)
    {
        if (sign == '?')
            current().atom.repeat(0, 1);
        else
            current().atom.repeat_from(sign == '+' ? 1 : 0);
    }

    // "m}", "m,}", "m,n}" or ",n}".
    void repeat_atom_by_interval()
    {
        pattern_cost& atom = current().atom;
        const uint64_t low = take_number();
        uint64_t high = low;
        if (!take_if(',')) {
            atom.repeat(low, low);
        } else if (m_rest.starts_with('}')) {
            atom.repeat_from(low);
        } else {
            high = std::max(low, take_number());
            atom.repeat(low, high);
        }
        m_repetitions = capped(m_repetitions * std::max<uint64_t>(high, 1));
        take_if('}');
    }

    uint64_t take_number()
    {
        uint64_t number = 0;
        while (!m_rest.empty() && is_digit(m_rest.front()))
            number = capped(number * 10 + static_cast<uint64_t>(take() - '0'));
        return number;
    }

    // "[...]": nothing in it repeats or escapes. A "]" in front is a member, as is one in "[:...:]".
    void skip_set()
    {
        take_if('^');
        take_if(']');
        while (!m_rest.empty() && !take_if(']'))
            skip_set_member();
    }

    void skip_set_member()
    {
        const bool is_class =
            m_rest.starts_with("[:") || m_rest.starts_with("[=") || m_rest.starts_with("[.");
        if (!is_class) {
            take();
            return;
        }
        const std::array<char, 2> end{m_rest[1], ']'};
        const size_t at = m_rest.find(std::string_view{end.data(), end.size()}, 2);
        m_rest.remove_prefix(at == std::string_view::npos ? m_rest.size() : at + end.size());
    }

    std::string_view m_rest;
    std::array<pattern_group, pattern_size_limit + 1> m_groups{}; // by depth
    size_t m_depth = 0;
    uint64_t m_repetitions = 1;
    bool m_refers_back = false;
};

} // namespace

bool is_affordable_pattern(std::string_view pattern)
{
    return pattern.size() <= pattern_size_limit && pattern_scanner{pattern}.is_affordable();
}

regex_ptr compile_filter(const char* pattern)
{
    std::unique_ptr<regex_t> preg{new (std::nothrow) regex_t}; // nothing in it to free until it is compiled
    if (!preg) {
        logger_error(g_logger, str_out_of_memory, "command_grep");
        return nullptr;
    }
    errno = 0;
    if (is_affordable_pattern(pattern) && regcomp(preg.get(), pattern, REG_EXTENDED | REG_NOSUB) == 0)
        return regex_ptr{preg.release()};
    const int error = errno;
    preg.reset();
    errno = error;
    return nullptr;
}

} // namespace rtls
