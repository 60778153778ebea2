// zpl_file - a configuration's text as the daemon's library reads it, with the lines where everything stands.
//
// The library forgets lines, and gives up at the first fault. This reader finds all faults, and makes of a faulty
// text what was probably meant. Of a text without a fault it makes exactly the library's tree: a test and a fuzz
// target hold it to that.
// Ownership  Values.
// Threads    Pure: nothing waits, logs or knows a clock.
// Failures   Throws std::bad_alloc.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::check {

// What is odd about an item that the library takes without a word.
enum class zpl_oddity : unsigned char {
    none,
    cut_at_sign,      // the value ends at a '#' that no blank precedes
    begins_with_sign, // the value is what was meant as a comment
    cut_at_zero,      // what follows a zero byte is not seen
};

struct zpl_item {
    std::string name;
    std::string value;
    size_t line = 0; // from 1 on; 0: the root
    zpl_oddity oddity = zpl_oddity::none;
    std::vector<zpl_item> children;

    // The first child of that name: the library sees no other.
    const zpl_item* child(std::string_view wanted) const noexcept;
    // The item at "section/name", in the way of the library; or nullptr.
    const zpl_item* locate(std::string_view path) const noexcept;
};

struct zpl_fault {
    size_t line;
    std::string text;
    std::string remedy;
};

struct zpl_file {
    zpl_item root;
    std::vector<zpl_fault> faults; // none: the library reads it
};

zpl_file parse_zpl(std::string_view text);

} // namespace rtls::check
