#include "strict_json.h"

#include <algorithm>
#include <cstddef>
#include <functional>
#include <set>
#include <string>

namespace rtls::fuzzing {

namespace {

class checker {
public:
    explicit checker(std::string_view text) : m_rest(text) {}

    bool is_one_value()
    {
        skip_blanks();
        return value(0) && (skip_blanks(), m_rest.empty());
    }

private:
    static constexpr int deepest = 64;

    void skip_blanks() { m_rest.remove_prefix(std::min(m_rest.find_first_not_of(" \t\n\r"), m_rest.size())); }
    bool take(std::string_view expected)
    {
        if (!m_rest.starts_with(expected))
            return false;
        m_rest.remove_prefix(expected.size());
        return true;
    }
    bool take_one_of(std::string_view characters)
    {
        if (m_rest.empty() || characters.find(m_rest.front()) == std::string_view::npos)
            return false;
        m_rest.remove_prefix(1);
        return true;
    }
    bool digits()
    {
        bool any = false;
        while (take_one_of("0123456789"))
            any = true;
        return any;
    }

    bool value(int depth)
    {
        if (depth > deepest || m_rest.empty())
            return false;
        switch (m_rest.front()) {
        case '{':
            return object(depth);
        case '[':
            return array(depth);
        case '"':
            return string();
        default:
            return take("true") || take("false") || take("null") || number();
        }
    }

    bool number()
    {
        take("-");
        if (!take("0") && !(m_rest.find_first_of("123456789") == 0 && digits()))
            return false;
        if (take(".") && !digits())
            return false;
        if (!take_one_of("eE"))
            return true;
        take_one_of("+-");
        return digits();
    }

    bool string()
    {
        if (!take("\""))
            return false;
        while (!take("\""))
            if (!character())
                return false;
        return true;
    }

    bool character()
    {
        if (take("\\"))
            return take("u") ? four_digits() : take_one_of("\"\\/bfnrt");
        if (m_rest.empty() || static_cast<unsigned char>(m_rest.front()) < 0x20)
            return false;
        return utf8();
    }

    bool four_digits()
    {
        for (int i = 0; i < 4; ++i)
            if (!take_one_of("0123456789abcdefABCDEF"))
                return false;
        return true;
    }

    // One code point: as short as can be, no surrogate, none beyond U+10FFFF.
    bool utf8()
    {
        const auto first = static_cast<unsigned char>(m_rest.front());
        const size_t size = first < 0x80 ? 1 : first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
        if ((first >= 0x80 && first < 0xC2) || first > 0xF4 || m_rest.size() < size)
            return false;
        char32_t code = size == 1 ? first : first & (0xFFU >> (size + 1));
        for (size_t i = 1; i < size; ++i) {
            const auto next = static_cast<unsigned char>(m_rest[i]);
            if ((next & 0xC0) != 0x80)
                return false;
            code = code << 6 | (next & 0x3F);
        }
        m_rest.remove_prefix(size);
        const bool is_surrogate = code >= 0xD800 && code < 0xE000;
        const bool is_shortest = size < 3 || code >= (size == 3 ? 0x800U : 0x10000U);
        return is_shortest && !is_surrogate && code <= 0x10FFFF;
    }

    bool array(int depth)
    {
        take("[");
        skip_blanks();
        if (take("]"))
            return true;
        do {
            skip_blanks();
            if (!value(depth + 1))
                return false;
            skip_blanks();
        } while (take(","));
        return take("]");
    }

    bool object(int depth)
    {
        take("{");
        skip_blanks();
        if (take("}"))
            return true;
        std::set<std::string, std::less<>> names;
        do {
            if (!member(depth, names))
                return false;
            skip_blanks();
        } while (take(","));
        return take("}");
    }

    bool member(int depth, std::set<std::string, std::less<>>& names)
    {
        skip_blanks();
        const std::string_view from = m_rest;
        if (!string())
            return false;
        if (!names.emplace(from.substr(0, from.size() - m_rest.size())).second)
            return false;
        skip_blanks();
        if (!take(":"))
            return false;
        skip_blanks();
        return value(depth + 1);
    }

    std::string_view m_rest;
};

} // namespace

bool is_strict_json(std::string_view text)
{
    return checker{text}.is_one_value();
}

} // namespace rtls::fuzzing
