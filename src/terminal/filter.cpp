#include "terminal/filter.h"

#include "base/common.h"
#include "base/logger.h"

#include <tre/tre.h> // brings a regex_t of its own: never together with <regex.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace rtls {

// Measured with random patterns: what these limits let pass compiles in less than 100 ms and 10 MB, and
// the longest line of the debug stream (2,047 bytes) takes it about 2 ms at worst, mostly much less.
static constexpr uint64_t work_limit = 131'072;
static constexpr uint64_t steps_limit = 300; // for each character
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

// Characters by their last five bits: a letter, a digit and most signs are told from their neighbours, and
// a set of characters is a set of 32 bits.
using character_set = uint32_t;
constexpr character_set any_character = ~character_set{0};

constexpr character_set set_of(char c)
{
    return character_set{1} << (static_cast<unsigned char>(c) & 31);
}

// A number for each of those characters; what is beyond all limits is not counted further.
class character_numbers {
public:
    void add(const character_numbers& other, uint64_t times = 1)
    {
        for (size_t i = 0; i < m_numbers.size(); ++i)
            m_numbers[i] = capped_number(m_numbers[i] + other.m_numbers[i] * times);
    }
    void add(character_set characters, uint64_t number)
    {
        for (size_t i = 0; i < m_numbers.size(); ++i)
            m_numbers[i] = capped_number(m_numbers[i] + (characters >> i & 1) * number);
    }
    uint64_t largest() const { return *std::max_element(m_numbers.begin(), m_numbers.end()); }

private:
    static uint16_t capped_number(uint64_t number)
    {
        return static_cast<uint16_t>(std::min<uint64_t>(number, INT16_MAX));
    }
    std::array<uint16_t, 32> m_numbers{};
};

// What a piece of a pattern becomes when all repetitions are written out: positions, each of which matches
// one character, and steps from one position to the next. The compiler builds just these. For each character
// of a line the matcher goes through all steps that lead on from the positions where it may be: those where
// a match can begin, and those that can follow the character before.
struct pattern_cost {
    uint64_t first = 0;              // positions where a match can begin
    uint64_t last = 0;               // and end
    uint64_t both = 0;               // where it can do both
    uint64_t first_steps = 0;        // from the first positions
    character_set last_characters{}; // which the last positions match
    character_numbers last_after;    // how many last positions can follow a character
    character_numbers steps_after;   // from all positions that can follow it
    uint64_t work = node_work;       // what compiling goes through
    bool may_be_empty = true;        // it matches the empty text
    bool loops = false;              // to loop once more changes nothing

    uint64_t steps() const { return first + first_steps + steps_after.largest(); }

    void append(const pattern_cost& next)
    {
        const uint64_t joints = capped(last * next.first);
        const uint64_t work_before = work;
        const bool was_empty = may_be_empty;
        const bool is_all_next = first == 0 && was_empty;
        steps_after.add(next.steps_after);
        steps_after.add(last_after, next.first);
        steps_after.add(last_characters, next.first_steps);
        character_numbers next_last_after = next.last_after;
        next_last_after.add(last_characters, next.both);
        if (next.may_be_empty)
            next_last_after.add(last_after);
        last_after = next_last_after;
        first_steps = capped(first_steps + both * next.first + (was_empty ? next.first_steps : 0));
        both = capped((was_empty ? next.both : 0) + (next.may_be_empty ? both : 0));
        first = capped(first + (was_empty ? next.first : 0));
        last = capped(next.last + (next.may_be_empty ? last : 0));
        last_characters = next.last_characters | (next.may_be_empty ? last_characters : 0);
        may_be_empty = was_empty && next.may_be_empty;
        loops = is_all_next && next.loops;
        work = capped(work_before + next.work + joints + first + last);
    }
    void add_alternative(const pattern_cost& other)
    {
        steps_after.add(other.steps_after);
        last_after.add(other.last_after);
        last_characters |= other.last_characters;
        first_steps = capped(first_steps + other.first_steps);
        both = capped(both + other.both);
        first = capped(first + other.first);
        last = capped(last + other.last);
        may_be_empty = may_be_empty || other.may_be_empty;
        loops = false;
        work = capped(work + other.work + first + last);
    }
    void loop()
    {
        work = capped(work + node_work + first * last + first + last);
        may_be_empty = true;
        if (std::exchange(loops, true))
            return;
        first_steps = capped(first_steps + both * first);
        steps_after.add(last_after, first);
        steps_after.add(last_characters, first_steps);
        last_after.add(last_characters, both);
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
        const auto [whole, ending] = current().finish();
        return ending.steps() > steps_limit || whole.work > work_limit ? E2BIG : 0;
    }

private:
    // A piece, and what of it is gone through when nothing follows: matching stops at the first match, and
    // the rest of a last repetition does not matter.
    struct piece {
        pattern_cost whole;
        pattern_cost ending;

        void repeat(uint64_t low, uint64_t high)
        {
            end_after(low);
            whole.repeat(low, high);
        }
        void repeat_from(uint64_t low)
        {
            end_after(low);
            whole.repeat_from(low);
        }

    private:
        void end_after(uint64_t copies)
        {
            const pattern_cost last = copies == 0 ? pattern_cost{} : ending;
            ending.start_with_copies(whole, copies == 0 ? 0 : copies - 1);
            ending.append(last);
        }
    };

    struct pattern_group {
        std::optional<piece> alternatives; // the branches before the current one
        pattern_cost branch;               // the current one, without its last atom
        piece atom;                        // which a repetition sign would repeat

        void start_atom(const piece& next)
        {
            branch.append(atom.whole);
            atom = next;
        }
        void start_branch()
        {
            piece done{branch, branch};
            done.whole.append(atom.whole);
            done.ending.append(atom.ending);
            if (alternatives) {
                alternatives->whole.add_alternative(done.whole);
                alternatives->ending.add_alternative(done.ending);
            } else {
                alternatives = done;
            }
            branch = {};
            atom = {};
        }
        piece finish()
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

    // `positions` of which one must match, and which match these characters.
    void start_characters(uint64_t positions, character_set characters)
    {
        pattern_cost cost;
        cost.first = cost.last = cost.both = positions;
        cost.last_characters = characters;
        cost.may_be_empty = false;
        current().start_atom({cost, cost});
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
        case ')': // one that closes nothing has sent the compiler round without end: ")\\)9"
            expect(m_depth > 0);
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
        case '.':
            start_characters(1, any_character);
            break;
        default:
            start_characters(1, set_of(c));
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
        const piece group = current().finish();
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
        else if (std::isalpha(static_cast<unsigned char>(c)) != 0) // a class, or a character by another name
            start_characters(std::string_view{"wW"}.find(c) != std::string_view::npos ? 2 : 1, any_character);
        else
            start_characters(1, set_of(c));
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
        piece& atom = current().atom;
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
        character_set characters = is_negated ? any_character : 0;
        for (bool is_front = true; !m_rest.empty() && (is_front || !m_rest.starts_with(']'));
             is_front = false) {
            characters |= take_set_member();
            ++members;
        }
        expect(take_if(']'));
        start_characters(members, characters);
    }

    character_set take_set_member()
    {
        if (m_rest.starts_with("[:")) {
            take_class();
            return any_character;
        }
        const char from = take();
        if (m_rest.size() < 2 || m_rest[0] != '-' || m_rest[1] == ']')
            return set_of(from);
        const char to = m_rest[1]; // a range is one member
        m_rest.remove_prefix(to == '[' ? 1 : 2);
        return range_of(from, to);
    }

    static character_set range_of(char from, char to)
    {
        const int begin = static_cast<unsigned char>(from);
        const int end = static_cast<unsigned char>(to);
        if (end - begin < 0 || end - begin > 31 || to == '[')
            return any_character;
        character_set characters = 0;
        for (int c = begin; c <= end; ++c)
            characters |= set_of(static_cast<char>(c));
        return characters;
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

// Texts to look for as they stand, "one" or "one|another" or "(one|another)"; none when the pattern is more
// than that. They need no matcher, and may be long and many: a list of MACs.
static std::vector<std::string> literals_of(std::string_view pattern)
{
    constexpr size_t most = 100; // each is looked for in the whole line: some microseconds
    if (pattern.size() >= 2 && pattern.front() == '(' && pattern.back() == ')')
        pattern = pattern.substr(1, pattern.size() - 2);
    std::vector<std::string> literals;
    if (pattern.find_first_of("\\[]^$()*+?{}.") != std::string_view::npos)
        return literals;
    for (size_t end = 0; end != std::string_view::npos && literals.size() <= most;) {
        end = pattern.find('|');
        literals.emplace_back(pattern.substr(0, end));
        pattern.remove_prefix(end == std::string_view::npos ? 0 : end + 1);
    }
    return literals.size() <= most ? literals : std::vector<std::string>{};
}

struct line_filter {
    std::vector<std::string> literals; // one of which must be in the line; or else
    regex_t compiled{};
};

void line_filter_freed::operator()(line_filter* filter) const noexcept
{
    if (filter->literals.empty())
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

static int compile(line_filter& filter, std::string_view pattern)
try {
    filter.literals = literals_of(pattern);
    if (!filter.literals.empty())
        return 0;
    if (const int error = pattern_error(pattern))
        return error;
    errno = 0;
    const int code = tre_regncomp(&filter.compiled, pattern.data(), pattern.size(), REG_EXTENDED | REG_NOSUB);
    return code == REG_OK ? 0 : compile_error(code, errno);
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

filter_ptr compile_filter(const char* pattern) noexcept
{
    std::unique_ptr<line_filter> filter{new (std::nothrow) line_filter{}}; // not yet anything in it to free
    const int error = filter ? compile(*filter, pattern) : ENOMEM;
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
    if (!filter.literals.empty())
        return std::any_of(filter.literals.begin(), filter.literals.end(), [=](const std::string& literal) {
            return std::strstr(line, literal.c_str()) != nullptr;
        });
    return tre_regexec(&filter.compiled, line, 0, nullptr, 0) != REG_NOMATCH;
}

} // namespace rtls
