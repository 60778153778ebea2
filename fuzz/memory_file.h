// memory_file - a file in memory with a name that can be opened, for readers of files.
//
// Ownership  Owns its descriptor; the name is good as long as it lives.
// Threads    One: the fuzzer's.
// Failures   End the process.
#pragma once

#include "base/czmq_ptr.h"
#include "fuzzing.h"

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

namespace rtls::fuzzing {

class memory_file {
public:
    memory_file()
        : m_descriptor(memfd_create("fuzz", MFD_CLOEXEC)),
          m_path("/proc/self/fd/" + std::to_string(m_descriptor))
    {
        require(m_descriptor != -1);
    }
    ~memory_file() { close(m_descriptor); }
    memory_file(const memory_file&) = delete;
    memory_file& operator=(const memory_file&) = delete;

    const std::string& path() const { return m_path; }
    // The same content, if it has the syntax of a configuration. The library that reads it loses memory where
    // it has not; a daemon that does not start does not mind, but a fuzzer does.
    bool write_configuration(const std::string& content) const
    {
        write(content);
        zchunk_t* chunk = zchunk_new(content.data(), content.size());
        const zconfig_ptr tree{zconfig_chunk_load(chunk)};
        zchunk_destroy(&chunk);
        return tree != nullptr;
    }
    void write(std::string_view content) const
    {
        require(ftruncate(m_descriptor, 0) == 0);
        require(pwrite(m_descriptor, content.data(), content.size(), 0) ==
                static_cast<ssize_t>(content.size()));
    }

private:
    int m_descriptor;
    std::string m_path;
};

} // namespace rtls::fuzzing
