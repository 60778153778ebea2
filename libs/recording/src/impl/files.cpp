#include "recording/files.h"

#include "impl/zstd_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace rtls::recording {

namespace {

struct close_file {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using file_ptr = std::unique_ptr<std::FILE, close_file>;

[[noreturn]] void fail(const char* what, const std::string& path)
{
    throw file_error(std::string{"cannot "} + what + " " + path + ": " + std::strerror(errno));
}

class file_source final : public byte_source {
public:
    file_source(file_ptr file, std::string path) : m_file(std::move(file)), m_path(std::move(path)) {}

    size_t read(bytes_span room) override
    {
        size_t taken = take_back(room);
        taken += std::fread(room.data() + taken, 1, room.size() - taken, m_file.get());
        if (taken < room.size() && std::ferror(m_file.get()))
            fail("read", m_path);
        return taken;
    }
    // Bytes that were looked at, and are to be read again: a pipe cannot be rewound.
    void put_back(bytes_view bytes) { m_put_back.assign(bytes.begin(), bytes.end()); }

private:
    size_t take_back(bytes_span room)
    {
        const size_t taken = std::min(room.size(), m_put_back.size());
        store_bytes(room, 0, bytes_view{m_put_back}.first(taken));
        m_put_back.erase(m_put_back.begin(), m_put_back.begin() + static_cast<std::ptrdiff_t>(taken));
        return taken;
    }

    file_ptr m_file;
    std::string m_path;
    std::vector<uint8_t> m_put_back;
};

class file_sink final : public byte_sink {
public:
    file_sink(file_ptr file, std::string path) : m_file(std::move(file)), m_path(std::move(path)) {}

    void write(bytes_view bytes) override
    {
        if (std::fwrite(bytes.data(), 1, bytes.size(), m_file.get()) < bytes.size())
            fail("write", m_path);
        m_size += bytes.size();
    }
    void flush() override
    {
        if (std::fflush(m_file.get()) != 0)
            fail("write", m_path);
    }
    void close() override
    {
        flush();
        if (std::fclose(m_file.release()) != 0)
            fail("write", m_path);
    }
    uint64_t size() const override { return m_size; }
    // What a file had before goes; a pipe or a device has nothing.
    void empty()
    {
        struct stat is {};
        if (::fstat(::fileno(m_file.get()), &is) != 0 ||
            (S_ISREG(is.st_mode) && ::ftruncate(::fileno(m_file.get()), 0) != 0))
            fail("write", m_path);
    }

private:
    file_ptr m_file;
    std::string m_path;
    uint64_t m_size = 0;
};

} // namespace

static file_ptr opened(int descriptor, const char* mode, const char* what, const std::string& path)
{
    if (descriptor < 0)
        fail(what, path);
    file_ptr file{::fdopen(descriptor, mode)};
    if (!file) {
        ::close(descriptor);
        fail(what, path);
    }
    return file;
}

std::unique_ptr<byte_source> open_recording(const std::string& path)
{
    const bool is_input = path == "-";
    const int descriptor = is_input ? ::dup(STDIN_FILENO) : ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    auto source = std::make_unique<file_source>(opened(descriptor, "rb", "read", path), path);
    static constexpr uint8_t zstd_magic[] = {0x28, 0xB5, 0x2F, 0xFD};
    uint8_t begin[sizeof zstd_magic];
    const size_t size = source->read(begin);
    source->put_back({begin, size});
    if (std::ranges::equal(bytes_view{begin, size}, zstd_magic))
        return decompressed(std::move(source), path);
    return source;
}

std::unique_ptr<byte_sink> create_recording(const std::string& path, const sink_options& options)
{
    if (options.is_compressed)
        require_compression();
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (options.may_replace ? 0 : O_EXCL);
    const int descriptor = path == "-" ? ::dup(STDOUT_FILENO) : ::open(path.c_str(), flags, 0666);
    auto file = std::make_unique<file_sink>(opened(descriptor, "wb", "write", path), path);
    if (path != "-")
        file->empty();
    return options.is_compressed ? compressed(std::move(file)) : std::move(file);
}

} // namespace rtls::recording
