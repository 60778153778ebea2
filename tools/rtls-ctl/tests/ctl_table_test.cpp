#include "rtls-ctl/table.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

namespace ctl {

static const std::vector<column> columns{
    {"MAC", 0, false}, {"ROLE", 1, false}, {"LIVES", 2, true}, {"NOTE", 0, false}};
static const std::vector<table_row> rows{
    {"02ab34cd560:01a2b", "fixed", "7", "short"},
    {"02ab34cd560:02001", "mobile", "300", "caf\xc3\xa9 and a long remark"}};

static std::string with_width(size_t width)
{
    return render_table(columns, rows, {false, false, width});
}

static std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in{text};
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

TEST(ctl_table, takes_what_it_needs_where_there_is_no_window)
{
    EXPECT_EQ(with_width(0), "MAC                ROLE    LIVES  NOTE\n"
                             "02ab34cd560:01a2b  fixed       7  short\n"
                             "02ab34cd560:02001  mobile    300  caf\xc3\xa9 and a long remark\n");
}

TEST(ctl_table, leaves_out_what_matters_least_then_cuts)
{
    EXPECT_EQ(lines_of(with_width(56))[2], "02ab34cd560:02001  mobile    300  caf\xc3\xa9 and a long remark");
    EXPECT_EQ(lines_of(with_width(55))[2], "02ab34cd560:02001  mobile  caf\xc3\xa9 and a long remark");
    EXPECT_EQ(lines_of(with_width(48))[2], "02ab34cd560:02001  caf\xc3\xa9 and a long remark");
    EXPECT_EQ(lines_of(with_width(38))[2], "02ab34cd560:02001  caf\xc3\xa9 and a long re~");
    EXPECT_EQ(lines_of(with_width(12))[2], "02ab~  caf\xc3\xa9~");
}

TEST(ctl_table, fits_every_window)
{
    for (size_t width = 1; width < 80; ++width)
        for (const std::string& line : lines_of(with_width(width)))
            EXPECT_LE(text_width(line), width) << line;
}

TEST(ctl_table, titles_stand_over_rows_alone)
{
    EXPECT_EQ(render_table(columns, {}, {}), "");
    EXPECT_EQ(render_table({{"", 0, false}}, {{"a line"}}, {}), "a line\n");
    EXPECT_EQ(lines_of(render_table(columns, rows, {true, true, 0}))[0],
              "\033[1mMAC                ROLE    LIVES  NOTE\033[0m");
}

} // namespace ctl
