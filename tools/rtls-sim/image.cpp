#include "rtls-sim/image.h"

#include <fmt/format.h>
#include <httplib.h>

#include <sys/socket.h>

#include <algorithm>
#include <fstream>
#include <random>
#include <thread>

namespace sim {

// Both tags are searched with the zero byte that ends them.
static constexpr char board_tag[] = "@BoardVer";
static constexpr char firmware_tag[] = "@Firmware";
static constexpr size_t tag_size = sizeof board_tag;
static_assert(sizeof firmware_tag == tag_size && tag_size == 10);

static constexpr size_t board_tag_at = 40; // anywhere will do; not aligned, as in a linked image
static constexpr size_t firmware_tag_at = 77;

static view tag_bytes(const char* tag)
{
    return {reinterpret_cast<const uint8_t*>(tag), tag_size};
}

static void put(bytes& image, size_t at, view data)
{
    std::ranges::copy(data, image.begin() + static_cast<ptrdiff_t>(at));
}

bytes make_image(const image_traits& traits)
{
    std::mt19937_64 random{traits.seed};
    bytes image(std::max(traits.size, smallest_image));
    for (uint8_t& byte : image) {
        byte = static_cast<uint8_t>(random());
        if (byte == '@')
            byte = 0; // no tag by chance
    }
    put(image, board_tag_at,
        writer{}.raw(tag_bytes(board_tag)).u8(traits.board_version).u8(traits.board_revision).take());
    put(image, firmware_tag_at,
        writer{}
            .raw(tag_bytes(firmware_tag))
            .be32(traits.git_id)
            .be16(traits.page_size)
            .be16(traits.maximum_pages)
            .take());
    return image;
}

// Reads what follows a tag.
static std::optional<reader> after_tag(view image, const char* tag)
{
    const view wanted = tag_bytes(tag);
    const auto found = std::search(image.begin(), image.end(), wanted.begin(), wanted.end());
    if (found == image.end())
        return std::nullopt;
    return reader{image.subspan(static_cast<size_t>(found - image.begin()) + wanted.size())};
}

std::optional<image_traits> read_traits(view image)
{
    auto board = after_tag(image, board_tag);
    auto firmware = after_tag(image, firmware_tag);
    if (!board || !firmware)
        return std::nullopt;
    image_traits traits;
    traits.size = image.size();
    traits.board_version = board->u8();
    traits.board_revision = board->u8();
    traits.git_id = firmware->be32();
    traits.page_size = firmware->be16();
    traits.maximum_pages = firmware->be16();
    if (board->failed() || firmware->failed())
        return std::nullopt;
    return traits;
}

std::string image_name(uint32_t git_id)
{
    return fmt::format("obn-node.{:08X}.bin", git_id);
}

std::optional<bytes> read_file(const std::filesystem::path& path)
{
    std::ifstream in{path, std::ios::binary};
    if (!in)
        return std::nullopt;
    return bytes{std::istreambuf_iterator<char>{in}, {}};
}

bool write_file(const std::filesystem::path& path, view data)
{
    std::ofstream out{path, std::ios::binary | std::ios::trunc};
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size()));
    return out.flush().good();
}

struct image_server::state {
    httplib::Server server;
    std::thread thread;
    uint16_t port = 0;
};

image_server::image_server(const std::string& address, uint16_t port, const std::filesystem::path& directory,
                           std::function<void(const std::string&)> served)
    : m_state(std::make_unique<state>())
{
    httplib::Server& server = m_state->server;
    // By itself the library shares a port with whoever else asks for it: requests would go to either.
    server.set_socket_options([](int fd) {
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    });
    if (!server.set_mount_point("/", directory.string()))
        return;
    server.set_logger(
        [served = std::move(served)](const httplib::Request& request, const httplib::Response& answer) {
            served(fmt::format("image server: {} {} for {}: {}, {} bytes", request.method, request.path,
                               request.remote_addr, answer.status, answer.body.size()));
        });
    if (port == 0) {
        const int bound = server.bind_to_any_port(address);
        m_state->port = bound > 0 ? static_cast<uint16_t>(bound) : uint16_t{0};
    } else if (server.bind_to_port(address, port)) {
        m_state->port = port;
    }
    if (m_state->port != 0)
        m_state->thread = std::thread{[&server] { server.listen_after_bind(); }};
}

image_server::~image_server()
{
    if (!m_state->thread.joinable())
        return;
    // stop() before the thread has begun to listen would be forgotten.
    while (!m_state->server.is_running())
        std::this_thread::yield();
    m_state->server.stop();
    m_state->thread.join();
}

bool image_server::is_up() const
{
    return m_state->thread.joinable();
}

uint16_t image_server::port() const
{
    return m_state->port;
}

} // namespace sim
