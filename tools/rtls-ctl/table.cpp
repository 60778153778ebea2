#include "rtls-ctl/table.h"

#include <algorithm>

namespace ctl {

static constexpr size_t gap = 2;

namespace {

// A column as it is drawn.
struct shown_column {
    size_t index;
    size_t width;
};

} // namespace

static size_t width_of(size_t index, const std::vector<column>& columns, const std::vector<table_row>& rows)
{
    size_t width = text_width(columns[index].title);
    for (const table_row& row : rows)
        width = std::max(width, text_width(row[index]));
    return width;
}

static size_t total_width(const std::vector<shown_column>& shown)
{
    size_t total = 0;
    for (const shown_column& it : shown)
        total += it.width + (total > 0 ? gap : 0);
    return total;
}

// Leaves out the column of the highest rank, the last of several. False when all that are left must stay.
static bool leave_one_out(std::vector<shown_column>& shown, const std::vector<column>& columns)
{
    auto least = shown.end();
    for (auto it = shown.begin(); it != shown.end(); ++it)
        if (columns[it->index].rank > 0 &&
            (least == shown.end() || columns[it->index].rank >= columns[least->index].rank))
            least = it;
    if (least == shown.end())
        return false;
    shown.erase(least);
    return true;
}

// Takes from the widest, so that short cells stay whole.
static void narrow(std::vector<shown_column>& shown, size_t width)
{
    for (size_t total = total_width(shown); total > width; --total) {
        const auto widest = std::max_element(
            shown.begin(), shown.end(),
            [](const shown_column& one, const shown_column& other) { return one.width < other.width; });
        if (widest->width <= 1)
            return;
        --widest->width;
    }
}

static std::vector<shown_column> fit(const std::vector<column>& columns, const std::vector<table_row>& rows,
                                     size_t width)
{
    std::vector<shown_column> shown;
    for (size_t i = 0; i < columns.size(); ++i)
        shown.push_back({i, width_of(i, columns, rows)});
    while (width > 0 && total_width(shown) > width && leave_one_out(shown, columns)) {
    }
    if (width > 0)
        narrow(shown, width);
    return shown;
}

// The first `count` characters; never a part of one.
static std::string first_characters(const std::string& text, size_t count)
{
    size_t end = 0;
    while (end < text.size() && (count > 0 || (text[end] & 0xC0) == 0x80))
        if ((text[end++] & 0xC0) != 0x80)
            --count;
    return text.substr(0, end);
}

static std::string cell_text(const std::string& text, const shown_column& it, bool is_number)
{
    const size_t width = text_width(text);
    if (width > it.width)
        return first_characters(text, it.width - 1) + "~";
    const std::string padding(it.width - width, ' ');
    return is_number ? padding + text : text + padding;
}

static std::string line_of(const table_row& row, const std::vector<shown_column>& shown,
                           const std::vector<column>& columns, size_t width)
{
    std::string line;
    for (const shown_column& it : shown)
        line += (line.empty() ? "" : std::string(gap, ' ')) +
                cell_text(row[it.index], it, columns[it.index].is_number);
    line.erase(line.find_last_not_of(' ') + 1);
    return width > 0 ? first_characters(line, width) : line; // a window of a few columns
}

static table_row titles_of(const std::vector<column>& columns)
{
    table_row titles;
    for (const column& it : columns)
        titles.push_back(it.title);
    return titles;
}

static bool has_titles(const std::vector<column>& columns)
{
    return std::any_of(columns.begin(), columns.end(), [](const column& it) { return !it.title.empty(); });
}

std::string render_table(const std::vector<column>& columns, const std::vector<table_row>& rows,
                         const screen& where)
{
    std::string text;
    const auto shown = fit(columns, rows, where.width);
    if (has_titles(columns) && !rows.empty()) {
        const std::string titles = line_of(titles_of(columns), shown, columns, where.width);
        text += where.has_colours ? "\033[1m" + titles + "\033[0m\n" : titles + "\n";
    }
    for (const table_row& row : rows)
        text += line_of(row, shown, columns, where.width) + "\n";
    return text;
}

} // namespace ctl
