#include "doors/http_session.h"

#include "common/texts.h"
#include "doors/failure.h"

#include <fmt/format.h>
#include <httplib.h>
#include <nlohmann/json.hpp>

#include <cctype>
#include <cerrno>
#include <cstring>
#include <fstream>

namespace ctl {

struct http_session::client : httplib::Client {
    using httplib::Client::Client;
};

http_session::http_session(const std::string& base, const std::string& token, seconds timeout)
    : m_base(base), m_token(token), m_timeout(timeout), m_client(std::make_unique<client>(base))
{
    if (!m_client->is_valid())
        throw failure(exit_status::usage, fmt::format("{} is no address of an HTTP port", base));
    const auto patience = std::chrono::ceil<std::chrono::microseconds>(timeout);
    m_client->set_connection_timeout(patience);
    m_client->set_read_timeout(patience);
    m_client->set_write_timeout(patience);
    m_client->set_keep_alive(true);
}

http_session::~http_session() = default;

// A page that does not come was waited for, or cut off; only the clock tells these apart.
static exit_status status_of(httplib::Error error, seconds passed, seconds timeout)
{
    const bool was_connected = error == httplib::Error::Read || error == httplib::Error::Write;
    return was_connected && passed >= timeout ? exit_status::timed_out : exit_status::unreachable;
}

[[noreturn]] static void refuse(const std::string& base, const std::string& path,
                                const httplib::Response& response)
{
    const json told = json::parse(response.body, nullptr, false);
    const std::string why = told.is_object() && told.contains("error") && told["error"].is_string()
                                ? tools::printable(told["error"].get<std::string>())
                                : fmt::format("HTTP status {}", response.status);
    const char* const remedy = response.status == 401 ? ": the token is missing or wrong (--token FILE)" : "";
    throw failure(exit_status::refused, fmt::format("{}{}: {}{}", base, path, why, remedy));
}

std::string http_session::get(const std::string& path, bool may_be_unwell)
{
    const auto begin = std::chrono::steady_clock::now();
    httplib::Headers headers;
    if (!m_token.empty())
        headers.emplace("Authorization", "Bearer " + m_token);
    const auto result = m_client->Get(path, headers);
    if (!result) {
        const auto status = status_of(result.error(), std::chrono::steady_clock::now() - begin, m_timeout);
        throw failure(status, status == exit_status::timed_out
                                  ? fmt::format("{} has not answered within {} s", m_base, m_timeout.count())
                                  : fmt::format("nobody answers at {} ({})", m_base,
                                                httplib::to_string(result.error())));
    }
    if (result->status != 200 && !(may_be_unwell && result->status == 503))
        refuse(m_base, path, *result);
    return result->body;
}

json http_session::read(const std::string& path, bool may_be_unwell)
{
    json value = json::parse(get(path, may_be_unwell), nullptr, false);
    if (!value.is_object())
        throw failure(exit_status::refused,
                      fmt::format("what answers at {} is no gateway: {} is no JSON", m_base, path));
    return value;
}

std::string http_session::text(const std::string& path)
{
    return get(path, false);
}

json http_session::page(const std::string& path)
{
    return read(path, false);
}

json http_session::verdict(const std::string& path)
{
    return read(path, true);
}

std::string read_token(const std::string& file)
{
    std::ifstream in{file};
    std::string token;
    if (!in)
        throw failure(exit_status::usage, fmt::format("cannot read {}: {}", file, std::strerror(errno)));
    if (!(in >> token))
        throw failure(exit_status::usage, fmt::format("there is no token in {}", file));
    return token;
}

static std::string encoded(std::string_view text)
{
    std::string out;
    for (const char c : text)
        if (std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_')
            out += c;
        else
            out += fmt::format("%{:02X}", static_cast<unsigned char>(c));
    return out;
}

std::string query_text(const std::vector<std::pair<std::string_view, std::string>>& parameters)
{
    std::string text;
    for (const auto& [name, value] : parameters)
        if (!value.empty())
            text += fmt::format("{}{}={}", text.empty() ? "" : "&", name, encoded(value));
    return text;
}

} // namespace ctl
