#include "rtls-record/file_series.h"

#include <fmt/format.h>

#include <cstdio>

namespace record {

using namespace rtls::recording;

std::string numbered_path(const std::string& path, size_t number)
{
    const size_t folder = path.rfind('/');
    const size_t name = folder == std::string::npos ? 0 : folder + 1;
    const size_t dot = path.find('.', name + 1);
    const size_t end = dot == std::string::npos ? path.size() : dot;
    return fmt::format("{}-{:05}{}", path.substr(0, end), number, path.substr(end));
}

file_series::file_series(const series_options& options) : m_options(options)
{
    open_next();
}

void file_series::open_next()
{
    ++m_count;
    const std::string path = m_options.is_rotated() ? numbered_path(m_options.path, m_count) : m_options.path;
    m_sink = create_recording(path, {m_options.is_compressed, m_options.may_replace});
    m_paths.push_back(path);
    m_writer.emplace(*m_sink, "rtls-record");
    m_opened = clock::now();
    m_sink->flush(); // readers find a recording from the start
    if (m_options.keep > 0 && m_paths.size() > m_options.keep) {
        std::remove(m_paths.front().c_str());
        m_paths.pop_front();
    }
}

bool file_series::is_full() const
{
    const std::chrono::duration<double> age = clock::now() - m_opened;
    return (m_options.max_size > 0 && m_sink->size() >= m_options.max_size) ||
           (m_options.max_seconds > 0 && age.count() >= m_options.max_seconds);
}

bool file_series::write(const tap_message& message)
{
    if (is_full()) {
        close();
        open_next();
    }
    return m_writer->write(message);
}

void file_series::flush()
{
    m_sink->flush();
}

void file_series::close()
{
    m_sink->close();
}

} // namespace record
