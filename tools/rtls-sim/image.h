// image - firmware images for the nodes: making them, reading them, and handing them out over HTTP.
//
// Threads    Any, but for what says otherwise.
// Failures   Nothing or false.
#pragma once

#include "rtls-sim/wire.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <string>

namespace sim {

struct image_traits {
    size_t size = 100'000;
    uint64_t seed = 1;
    uint8_t board_version = 3;
    uint8_t board_revision = 1;
    uint32_t git_id = 0x0102A0FF; // also the version in the file's name
    uint16_t page_size = 512;
    uint16_t maximum_pages = 1024;
};

constexpr size_t smallest_image = 128; // has room for both tags

// An image of pseudo-random content with its two tags, the board's and the firmware's. At least
// smallest_image bytes long.
bytes make_image(const image_traits& traits);
// What the tags of an image say, or nothing when one is missing.
std::optional<image_traits> read_traits(view image);
// "obn-node.0102A0FF.bin": the gateway reads the version from the name.
std::string image_name(uint32_t git_id);

// The file's bytes; nothing, with the reason in errno, when it cannot be read.
std::optional<bytes> read_file(const std::filesystem::path& path);
bool write_file(const std::filesystem::path& path, view data);

// Serves the files of a directory, on a thread of its own, for as long as it lives.
class image_server {
public:
    // `served` is called, on the server's thread, with a line about each request.
    image_server(const std::string& address, uint16_t port, const std::filesystem::path& directory,
                 std::function<void(const std::string&)> served);
    ~image_server();
    image_server(const image_server&) = delete;
    image_server& operator=(const image_server&) = delete;

    // False when the directory or the port is not to be had.
    bool is_up() const;
    uint16_t port() const; // as bound: given port 0, the one that was free

private:
    struct state;
    std::unique_ptr<state> m_state;
};

} // namespace sim
