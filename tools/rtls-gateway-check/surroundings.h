// surroundings - what a configuration refers to and the file does not say: names, addresses, folders, limits.
//
// Ownership  The caller's. this_machine keeps nothing between two calls.
// Threads    One at a time.
// Blocking   resolve waits for name servers, for all names together as long as it is told; the rest does not.
// Failures   What cannot be found out is left open (std::nullopt). Throws std::bad_alloc.
#pragma once

#include <netinet/in.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rtls::check {

struct file_facts {
    bool is_there;
    bool is_folder;
    bool is_for_all_to_write;
    bool is_for_all_to_read;
};

class surroundings {
public:
    surroundings() = default;
    surroundings(const surroundings&) = delete;
    surroundings& operator=(const surroundings&) = delete;
    virtual ~surroundings() = default;

    // For each name, in their order: why it has no IPv4 address; nothing when it has one.
    virtual std::vector<std::optional<std::string>> resolve(const std::vector<std::string>& names) const = 0;
    // Whether the address is one of this host's.
    virtual bool has_address(in_addr address) const = 0;
    virtual file_facts look_at(const std::string& path) const = 0;
    // The most files that may be open, as a hard limit.
    virtual std::optional<uint64_t> most_files() const = 0;
    // The most connections that may wait to be accepted.
    virtual std::optional<int64_t> most_waiting() const = 0;
};

class this_machine : public surroundings {
public:
    explicit this_machine(std::chrono::milliseconds patience) : m_patience(patience) {}

    std::vector<std::optional<std::string>> resolve(const std::vector<std::string>& names) const override;
    bool has_address(in_addr address) const override;
    file_facts look_at(const std::string& path) const override;
    std::optional<uint64_t> most_files() const override;
    std::optional<int64_t> most_waiting() const override;

private:
    std::chrono::milliseconds m_patience; // with name servers
};

} // namespace rtls::check
