#include "terminal/filter.h"

#include "base/common.h"
#include "base/logger.h"

#include <tre/tre.h> // brings a regex_t of its own: never together with <regex.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <new>
#include <optional>

namespace rtls {

// Measured with random patterns: what these limits let pass compiles in less than 100 ms and 10 MB, and
// the longest line of the debug stream (2,047 bytes) takes it 33 ms at worst, mostly less than 2.
static constexpr uint64_t work_limit = 131'072;
static constexpr uint64_t steps_limit = 3'000;
static constexpr uint64_t beyond_all_limits = 1 << 20;

static constexpr size_t depth_limit = 512;        // of groups in groups
static constexpr uint64_t repetition_limit = 255; // the matcher's own
static constexpr uint64_t node_work = 10;         // a piece's own, beside its positions'

static uint64_t capped(uint64_t number)
{
    return std::min(number, beyond_all_limits);
}

static bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

namespace {

// What a piece of a pattern becomes when all repetitions are written out: positions, each of which matches
// one character, and steps from one position to the next. The compiler builds just these.
struct pattern_cost {
    uint64_t first = 0;        // positions where a match can begin
    uint64_t last = 0;         // and end
    uint64_t steps = 0;        // what matching may go through for each character
    uint64_t work = node_work; // what compiling goes through
    bool may_be_empty = true;  // it matches the empty text

    void append(const pattern_cost& next)
    {
        const uint64_t joints = capped(last * next.first);
        steps = capped(steps + next.steps + joints);
        first = capped(first + (may_be_empty ? next.first : 0));
        last = capped(next.last + (next.may_be_empty ? last : 0));
        may_be_empty = may_be_empty && next.may_be_empty;
        work = capped(work + next.work + joints + first + last);
    }
    void add_alternative(const pattern_cost& other)
    {
        steps = capped(steps + other.steps);
        first = capped(first + other.first);
        last = capped(last + other.last);
        may_be_empty = may_be_empty || other.may_be_empty;
        work = capped(work + other.work + first + last);
    }
    void loop()
    {
        const uint64_t joints = capped(first * last);
        steps = capped(steps + joints);
        work = capped(work + node_work + joints + first + last);
        may_be_empty = true;
    }
    // At least `low` times and at most `high` times: "a{2,4}" is written out as "aa(a(a)?)?".
    void repeat(uint64_t low, uint64_t high)
    {
        const pattern_cost once = *this;
        pattern_cost rest;
        for (uint64_t i = low; i < high; ++i) {
            pattern_cost longer = once;
            longer.append(rest);
            rest = longer;
            rest.add_alternative({});
        }
        start_with_copies(once, low);
        append(rest);
    }
    // At least `low` times, without an upper bound: `low` copies, and one that loops.
    void repeat_from(uint64_t low)
    {
        const pattern_cost once = *this;
        pattern_cost rest = once;
        rest.loop();
        start_with_copies(once, low);
        append(rest);
    }

private:
    void start_with_copies(const pattern_cost& once, uint64_t count)
    {
        *this = {};
        for (uint64_t i = 0; i < count; ++i)
            append(once);
    }
};

// Reads a pattern from left to right and sums up its cost. Where the compiler would understand something
// other than a POSIX pattern, and so of another cost, the pattern is refused as invalid.
class pattern_scanner {
public:
    explicit pattern_scanner(std::string_view pattern) : m_rest(pattern) {}

    int error()
    {
        while (m_error == 0 && !m_rest.empty())
            take_construct();
        if (m_error != 0)
            return m_error;
        while (m_depth > 0)
            close_group();
        const pattern_cost total = current().finish();
        return total.first + total.steps > steps_limit || total.work > work_limit ? E2BIG : 0;
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

    void expect(bool is_so, int error = EINVAL)
    {
        if (!is_so && m_error == 0)
            m_error = error;
    }

    // `positions` of which one must match.
    void start_characters(uint64_t positions)
    {
        current().start_atom({positions, positions, 0, node_work, false});
    }
    void start_edge() { current().start_atom({}); }

    void take_construct()
    {
        switch (const char c = take()) {
        case '\\':
            take_escaped();
            break;
        case '[':
            take_set();
            break;
        case '^':
        case '$':
            start_edge();
            break;
        case '(':
            open_group();
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
            start_characters(1);
        }
    }

    pattern_group& current() { return m_groups[m_depth]; }

    // "(?" would begin what is no group.
    void open_group()
    {
        expect(!m_rest.starts_with('?'));
        expect(m_depth < depth_limit, E2BIG);
        if (m_error == 0)
            m_groups[++m_depth] = {};
    }

    // The group becomes an atom of the one around it.
    void close_group()
    {
        const pattern_cost group = current().finish();
        --m_depth;
        current().start_atom(group);
    }

    // What stands behind a backslash: a word's edge, or something to match. Back-references would be tried
    // in all ways; \Q would take the meaning from what follows.
    void take_escaped()
    {
        expect(!m_rest.empty());
        if (m_rest.empty())
            return;
        const char c = take();
        expect(!is_digit(c) && c != 'Q');
        if (std::string_view{"bB<>"}.find(c) != std::string_view::npos)
            start_edge();
        else
            start_characters(std::string_view{"wW"}.find(c) != std::string_view::npos ? 2 : 1);
    }

    void repeat_atom(char sign)
    {
        if (sign == '?')
            current().atom.repeat(0, 1);
        else
            current().atom.repeat_from(sign == '+' ? 1 : 0);
    }

    // "m}", "m,}" or "m,n}". The compiler would take ",n}" for something else.
    void repeat_atom_by_interval()
    {
        pattern_cost& atom = current().atom;
        expect(!m_rest.starts_with(','));
        const uint64_t low = take_number();
        if (!take_if(',')) {
            atom.repeat(low, low);
        } else if (m_rest.starts_with('}')) {
            atom.repeat_from(low);
        } else {
            atom.repeat(low, take_number());
        }
        expect(take_if('}'));
    }

    uint64_t take_number()
    {
        uint64_t number = 0;
        while (!m_rest.empty() && is_digit(m_rest.front()))
            number = capped(number * 10 + static_cast<uint64_t>(take() - '0'));
        expect(number <= repetition_limit, E2BIG);
        return std::min(number, repetition_limit);
    }

    // "[...]": nothing in it repeats or escapes. A "]" in front is a member, as is one in "[:...:]". Each
    // member may become a position, and in "[^...]" each gap between two members.
    void take_set()
    {
        const bool is_negated = take_if('^');
        uint64_t members = is_negated ? 1 : 0;
        for (bool is_front = true; !m_rest.empty() && (is_front || !m_rest.starts_with(']'));
             is_front = false) {
            take_set_member();
            ++members;
        }
        expect(take_if(']'));
        start_characters(members);
    }

    void take_set_member()
    {
        if (m_rest.starts_with("[:"))
            take_class();
        else
            take();
        if (m_rest.size() >= 2 && m_rest[0] == '-' && m_rest[1] != ']')
            m_rest.remove_prefix(m_rest[1] == '[' ? 1 : 2); // a range is one member
    }

    void take_class()
    {
        const size_t colon = m_rest.find(':', 2);
        m_rest.remove_prefix(std::min(colon, m_rest.size()));
        expect(take_if(':') && m_rest.starts_with(']'));
        take_if(']');
    }

    std::string_view m_rest;
    std::array<pattern_group, depth_limit + 1> m_groups{}; // by depth
    size_t m_depth = 0;
    int m_error = 0;
};

} // namespace

int pattern_error(std::string_view pattern) noexcept
{
    return pattern_scanner{pattern}.error();
}

struct line_filter {
    regex_t compiled;
};

void line_filter_freed::operator()(line_filter* filter) const noexcept
{
    tre_regfree(&filter->compiled);
    delete filter;
}

// The compiler has a bound of its own, for which there is no other code than for a shortage of memory.
static int compile_error(int code, int system_error)
{
    if (code != REG_ESPACE)
        return EINVAL;
    return system_error == ENOMEM ? ENOMEM : E2BIG;
}

static int compile(regex_t& compiled, std::string_view pattern)
{
    if (const int error = pattern_error(pattern))
        return error;
    errno = 0;
    const int code = tre_regncomp(&compiled, pattern.data(), pattern.size(), REG_EXTENDED | REG_NOSUB);
    return code == REG_OK ? 0 : compile_error(code, errno);
}

filter_ptr compile_filter(const char* pattern) noexcept
{
    std::unique_ptr<line_filter> filter{new (std::nothrow) line_filter{}}; // not yet anything in it to free
    const int error = filter ? compile(filter->compiled, pattern) : ENOMEM;
    if (error == 0)
        return filter_ptr{filter.release()};
    if (error == ENOMEM)
        logger_error(g_logger, str_out_of_memory, "command_grep");
    filter.reset();
    errno = error;
    return nullptr;
}

bool passes(const line_filter& filter, const char* line) noexcept
{
    return tre_regexec(&filter.compiled, line, 0, nullptr, 0) != REG_NOMATCH;
}

} // namespace rtls
