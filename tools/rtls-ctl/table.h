// table - rows in columns that fit a window.
//
// Ownership  Values.
// Threads    Any; pure.
// Failures   Of memory: std::bad_alloc.
#pragma once

#include "rtls-ctl/screen.h"

#include <cstddef>
#include <string>
#include <vector>

namespace ctl {

struct column {
    std::string title;
    int rank = 0; // 0: stays; where there is no room, those of the highest rank are left out first
    bool is_number = false;
};

using table_row = std::vector<std::string>; // a cell for each column

// A line for each row, each with its end, none wider than the screen. Columns are left out as long as that
// helps, then the widest cells are cut, which a ~ shows. Titles only where a column has one and `rows` is not empty.
std::string render_table(const std::vector<column>& columns, const std::vector<table_row>& rows,
                         const screen& where);

} // namespace ctl
