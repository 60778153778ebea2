// key_reading - what the daemon makes of a key's text: its own functions are asked, one key at a time.
//
// The daemon ends at the first key that it cannot read. Given a tree with nothing but one key, its functions judge
// that key alone.
// Ownership  Values; a row of the table is borrowed and lives as long as the program.
// Threads    One at a time. Nothing waits: files that keys name are not opened here.
// Failures   Throws std::bad_alloc. What the daemon logs meanwhile goes nowhere: no logger is made.
#pragma once

#include "base/config_keys.h"
#include "rtls-gateway-check/zpl_file.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rtls::check {

enum class key_fate : unsigned char {
    taken,
    ignored, // as if the key were not there
    refused, // the daemon does not start
};

struct key_reading {
    key_fate fate;
    std::string value; // as the daemon has it then: "4464", "yes"; "" when nothing is taken
};

key_reading read_key(const config_key& key, const std::string& text);

// The number that strtol sees in the text, before anything is cut; and what stands behind it.
struct seen_number {
    int64_t number;
    std::string rest;
};
std::optional<seen_number> see_number(const std::string& text);

// One key of the table, and what holds of it.
struct effective_key {
    const config_key* key;
    const zpl_item* item; // where it stands, or nullptr
    key_reading reading;  // without an item: taken, with what the daemon presets ("" if there is none)

    bool is_taken() const noexcept { return reading.fate == key_fate::taken; }
};

class effective_configuration {
public:
    // `file` outlives it.
    explicit effective_configuration(const zpl_file& file);

    // In the order of the table.
    const std::vector<effective_key>& keys() const noexcept { return m_keys; }
    // The key is one of the table.
    const effective_key& at(std::string_view path) const;
    const std::string& text(std::string_view path) const { return at(path).reading.value; }
    // 0 when there is none.
    int64_t number(std::string_view path) const;
    // The line of the key, or of its section; 0 without both.
    size_t line(std::string_view path) const;

private:
    const zpl_file& m_file;
    std::vector<effective_key> m_keys;
};

} // namespace rtls::check
