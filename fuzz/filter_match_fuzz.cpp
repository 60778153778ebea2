// Patterns that are made, not typed: each is a tree whose meaning is known, so that what the filter lets pass
// can be told by a matcher that goes through the tree and tries everything.
//
// Two things that the library's matcher gets wrong are not made: edges anywhere but at the ends ("($)?.." does not
// pass "aa"), and intervals in or around other repetitions ("^(((.){1,3}[b-d]c)*c.)*$" passes "bb").
#include "fuzzing.h"
#include "terminal/filter.h"

#include <memory>
#include <utility>

namespace rtls {

using fuzzing::require;

namespace {

// Places in a line, as bits: bit i is in front of character i.
using place_set = uint64_t;
constexpr size_t longest_line = 63;
constexpr int deepest = 3; // of groups in groups

class piece {
public:
    virtual ~piece() = default;
    virtual std::string text() const = 0;
    // Where a match can end that begins at one of these places.
    virtual place_set ends(place_set from, const std::string& line) const = 0;
};
using piece_ptr = std::unique_ptr<piece>;

// One character of a set.
class one_of : public piece {
public:
    one_of(std::string text, std::string characters, bool is_negated = false)
        : m_text(std::move(text)), m_characters(std::move(characters)), m_is_negated(is_negated)
    {
    }
    std::string text() const override { return m_text; }
    place_set ends(place_set from, const std::string& line) const override
    {
        place_set to = 0;
        for (size_t i = 0; i < line.size(); ++i)
            if ((from >> i & 1) != 0 && (m_characters.find(line[i]) != std::string::npos) != m_is_negated)
                to |= place_set{2} << i;
        return to;
    }

private:
    std::string m_text;
    std::string m_characters;
    bool m_is_negated;
};

class sequence : public piece {
public:
    explicit sequence(std::vector<piece_ptr> pieces) : m_pieces(std::move(pieces)) {}
    std::string text() const override
    {
        std::string all;
        for (const auto& piece : m_pieces)
            all += piece->text();
        return all;
    }
    place_set ends(place_set from, const std::string& line) const override
    {
        for (const auto& piece : m_pieces)
            from = piece->ends(from, line);
        return from;
    }

private:
    std::vector<piece_ptr> m_pieces;
};

class alternatives : public piece {
public:
    alternatives(piece_ptr first, piece_ptr second) : m_first(std::move(first)), m_second(std::move(second))
    {
    }
    std::string text() const override { return "(" + m_first->text() + "|" + m_second->text() + ")"; }
    place_set ends(place_set from, const std::string& line) const override
    {
        return m_first->ends(from, line) | m_second->ends(from, line);
    }

private:
    piece_ptr m_first;
    piece_ptr m_second;
};

constexpr unsigned unbounded = UINT32_MAX;

class repetition : public piece {
public:
    repetition(piece_ptr once, std::string sign, unsigned low, unsigned high)
        : m_once(std::move(once)), m_sign(std::move(sign)), m_low(low), m_high(high)
    {
    }
    std::string text() const override { return "(" + m_once->text() + ")" + m_sign; }
    place_set ends(place_set from, const std::string& line) const override
    {
        place_set to = m_low == 0 ? from : 0;
        // No more turns than places lead anywhere new.
        for (unsigned turn = 1; turn <= m_high && turn <= m_low + longest_line + 1 && from != 0; ++turn) {
            from = m_once->ends(from, line);
            if (turn >= m_low)
                to |= from;
        }
        return to;
    }

private:
    piece_ptr m_once;
    std::string m_sign;
    unsigned m_low;
    unsigned m_high;
};

piece_ptr make_piece(fuzzing::input& input, int depth);

piece_ptr make_sequence(fuzzing::input& input, int depth)
{
    std::vector<piece_ptr> pieces;
    for (unsigned left = 1 + input.u8() % 4; left > 0; --left)
        pieces.push_back(make_piece(input, depth));
    return std::make_unique<sequence>(std::move(pieces));
}

piece_ptr make_repetition(fuzzing::input& input, int depth)
{
    const unsigned kind = input.u8() % (depth == deepest ? 6 : 3);
    piece_ptr once = make_sequence(input, kind < 3 ? depth - 1 : 0);
    const unsigned low = input.u8() % 4;
    const unsigned high = low + input.u8() % 3;
    const std::string number = std::to_string(low);
    switch (kind) {
    case 0:
        return std::make_unique<repetition>(std::move(once), "*", 0, unbounded);
    case 1:
        return std::make_unique<repetition>(std::move(once), "+", 1, unbounded);
    case 2:
        return std::make_unique<repetition>(std::move(once), "?", 0, 1);
    case 3:
        return std::make_unique<repetition>(std::move(once), "{" + number + "}", low, low);
    case 4:
        return std::make_unique<repetition>(std::move(once), "{" + number + ",}", low, unbounded);
    default:
        return std::make_unique<repetition>(std::move(once), "{" + number + "," + std::to_string(high) + "}",
                                            low, high);
    }
}

piece_ptr make_piece(fuzzing::input& input, int depth)
{
    switch (const unsigned choice = input.u8() % 12; depth > 0 ? choice : choice % 8) {
    case 0:
        return std::make_unique<one_of>(".", "", true);
    case 1:
        return std::make_unique<one_of>("[ab]", "ab");
    case 2:
        return std::make_unique<one_of>("[^a]", "a", true);
    case 3:
        return std::make_unique<one_of>("\\.", ".");
    case 4:
        return std::make_unique<one_of>("c", "c");
    case 5:
        return std::make_unique<one_of>("[b-d]", "bcd");
    case 6:
        return std::make_unique<one_of>("a", "a");
    case 7:
        return std::make_unique<one_of>("b", "b");
    case 8:
    case 9: {
        piece_ptr first = make_sequence(input, depth - 1);
        return std::make_unique<alternatives>(std::move(first), make_sequence(input, depth - 1));
    }
    default:
        return make_repetition(input, depth);
    }
}

std::string make_line(fuzzing::input& input)
{
    std::string line;
    while (!input.empty() && line.size() < longest_line)
        line += "aabbbcd."[input.u8() % 8];
    return line;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzing::input input{data, size};
    const unsigned edges = input.u8();
    const bool at_begin = (edges & 1) != 0;
    const bool at_end = (edges & 2) != 0;
    const piece_ptr tree = make_sequence(input, deepest);
    const std::string line = make_line(input);
    const std::string pattern = (at_begin ? "^" : "") + tree->text() + (at_end ? "$" : "");
    const filter_ptr filter = compile_filter(pattern.c_str());
    if (!filter)
        return 0; // it would cost too much
    const place_set all = ~place_set{0} >> (longest_line - line.size());
    const place_set ends = tree->ends(at_begin ? 1 : all, line);
    require(passes(*filter, line.c_str()) == ((at_end ? ends >> line.size() : ends) != 0));
    return 0;
}

} // namespace rtls
