#include "rtls-record/file_series.h"

#include <fmt/format.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <utility>

namespace record {

using namespace rtls::recording;

// Where the name begins behind its folder, and where its ending begins.
static std::pair<size_t, size_t> name_of(const std::string& path)
{
    const size_t folder = path.rfind('/');
    const size_t name = folder == std::string::npos ? 0 : folder + 1;
    const size_t dot = path.find('.', name + 1);
    return {name, dot == std::string::npos ? path.size() : dot};
}

std::string numbered_path(const std::string& path, size_t number)
{
    const size_t end = name_of(path).second;
    return fmt::format("{}-{:05}{}", path.substr(0, end), number, path.substr(end));
}

// The number in "a-00007.pcapng.zst"; 0: it is no such name.
static size_t number_in(std::string_view name, std::string_view before, std::string_view behind)
{
    if (name.size() < before.size() + behind.size() + 5 || !name.starts_with(before) ||
        !name.ends_with(behind))
        return 0;
    name = name.substr(before.size(), name.size() - before.size() - behind.size());
    size_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    return error == std::errc{} && end == name.data() + name.size() ? number : 0;
}

size_t last_number(const std::string& path)
{
    const auto [begin, end] = name_of(path);
    const std::string folder = begin == 0 ? "." : path.substr(0, begin);
    const std::string before = path.substr(begin, end - begin) + "-";
    size_t last = 0;
    std::error_code error; // of a folder that is not there: the first file tells it
    for (std::filesystem::directory_iterator it{folder, error}, over; !error && it != over;
         it.increment(error))
        last = std::max(
            last, number_in(it->path().filename().native(), before, std::string_view{path}.substr(end)));
    return last;
}

static void require_room_for(const std::string& path, bool may_replace)
{
    const std::string folder = path.substr(0, name_of(path).first);
    if (!may_replace && ::access(path.c_str(), F_OK) == 0)
        errno = EEXIST;
    else if (::access(folder.empty() ? "." : folder.c_str(), W_OK | X_OK) == 0 || may_replace)
        return;
    throw file_error(fmt::format("cannot write {}: {}", path, std::strerror(errno)));
}

file_series::file_series(const series_options& options) : m_options(options)
{
    if (m_options.is_rotated() && !m_options.may_replace)
        m_before = last_number(m_options.path);
    if (m_options.path != "-")
        require_room_for(next_path(), m_options.may_replace);
}

void file_series::begin()
{
    if (!m_sink)
        open_next();
}

std::string file_series::next_path() const
{
    return m_options.is_rotated() ? numbered_path(m_options.path, m_before + m_count + 1) : m_options.path;
}

void file_series::open_next()
{
    const std::string path = next_path();
    m_sink = create_recording(path, {m_options.is_compressed, m_options.may_replace});
    ++m_count;
    m_paths.push_back(path);
    m_writer.emplace(*m_sink, "rtls-record");
    m_opened = clock::now();
    m_has_messages = false;
    m_sink->flush(); // readers find a recording from the start
    if (m_options.keep > 0 && m_paths.size() > m_options.keep) {
        std::remove(m_paths.front().c_str());
        m_paths.pop_front();
    }
}

bool file_series::is_full() const
{
    const std::chrono::duration<double> age = clock::now() - m_opened;
    if (!m_has_messages)
        return false;
    return (m_options.max_size > 0 && m_sink->size() >= m_options.max_size) ||
           (m_options.max_seconds > 0 && age.count() >= m_options.max_seconds);
}

bool file_series::write(const tap_message& message)
{
    begin();
    if (is_full()) {
        close();
        open_next();
    }
    const bool is_written = m_writer->write(message);
    m_has_messages = m_has_messages || is_written;
    return is_written;
}

void file_series::flush()
{
    if (m_sink)
        m_sink->flush();
}

void file_series::close()
{
    if (m_sink)
        m_sink->close();
}

} // namespace record
