#include "net/curve.h"

#include "base/logger.h"

#include <algorithm>
#include <memory>

namespace rtls {

static constexpr const char* link_keys[server_links] = {
    "curve/message_handler",
    "curve/pub_sub_proxy",
    "curve/pub_sub_proxy_input",
    "curve/debug_broker",
};
static constexpr char own_key[] = "curve/certificate";
static constexpr char tap_key[] = "curve/tap";

namespace {
struct destroy_cert {
    void operator()(zcert_t* cert) const noexcept { zcert_destroy(&cert); }
};
} // namespace
using cert_ptr = std::unique_ptr<zcert_t, destroy_cert>;

static cert_ptr load(const char* key, const char* file_name)
{
    cert_ptr cert{zcert_load(file_name)};
    if (!cert)
        logger_error(g_logger, "The parameter \"%s\" names no certificate!", key);
    return cert;
}

// A certificate without its secret half has a key of zeros there.
static bool has_secret(zcert_t* cert)
{
    static constexpr size_t key_size = 32;
    const uint8_t* key = zcert_secret_key(cert);
    for (size_t i = 0; i < key_size; ++i)
        if (key[i] != 0)
            return true;
    return false;
}

// The optional key of the tap.
bool curve_certificates::read_tap(zconfig_t* config)
{
    const char* file_name = zconfig_get(config, tap_key, nullptr);
    if (!file_name)
        return true;
    const cert_ptr subscribers = load(tap_key, file_name);
    if (!subscribers)
        return false;
    const uint8_t* key = zcert_public_key(subscribers.get());
    std::copy_n(key, m_tap_subscribers.size(), m_tap_subscribers.begin());
    m_closes_tap = true;
    return true;
}

bool curve_certificates::read(zconfig_t* config)
{
    if (!read_tap(config))
        return false;
    bool any = m_closes_tap;
    for (size_t link = 0; link < server_links; ++link) {
        const char* file_name = zconfig_get(config, link_keys[link], nullptr);
        if (!file_name)
            continue;
        const cert_ptr server = load(link_keys[link], file_name);
        if (!server)
            return false;
        m_servers[link] = zcert_public_txt(server.get());
        any = true;
    }
    const char* own_name = zconfig_get(config, own_key, nullptr);
    if (!own_name && !any)
        return true;
    const cert_ptr own = own_name ? load(own_key, own_name) : nullptr;
    if (own_name && !own)
        return false;
    if (!own || !has_secret(own.get())) {
        logger_error(g_logger, "The parameter \"%s\" names no certificate with a secret key!", own_key);
        return false;
    }
    m_own_public = zcert_public_txt(own.get());
    m_own_secret = zcert_secret_txt(own.get());
    return true;
}

bool curve_certificates::protect(zsock_t* socket, server_link link) const noexcept
{
    if (!closes(link))
        return true;
    void* handle = zsock_resolve(socket);
    const auto set = [handle](int option, const std::string& key) {
        return zmq_setsockopt(handle, option, key.c_str(), key.size() + 1) == 0;
    };
    return set(ZMQ_CURVE_SERVERKEY, m_servers[static_cast<size_t>(link)]) &&
           set(ZMQ_CURVE_PUBLICKEY, m_own_public) && set(ZMQ_CURVE_SECRETKEY, m_own_secret);
}

bool curve_certificates::serve(void* socket) const noexcept
{
    const int is_server = 1;
    return zmq_setsockopt(socket, ZMQ_CURVE_SERVER, &is_server, sizeof is_server) == 0 &&
           zmq_setsockopt(socket, ZMQ_CURVE_SECRETKEY, m_own_secret.c_str(), m_own_secret.size() + 1) == 0;
}

curve_keys curve_certificates::keys(server_link link) const
{
    return {m_servers[static_cast<size_t>(link)], m_own_public, m_own_secret};
}

} // namespace rtls
