// http_session - a gateway's HTTP port, which is only read.
//
// Ownership  Owns its connection, which serves one page after the other.
// Threads    One at a time.
// Blocking   Connecting and each page wait for the time-out at most.
// Failures   Thrown: unreachable, timed_out; refused with the gateway's own words when it refuses a page, or answers
//            what is no JSON.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ctl {

using nlohmann::json;
using seconds = std::chrono::duration<double>;

class http_session {
public:
    // `base`: "http://host:port" or https. `token`: empty when none is needed.
    http_session(const std::string& base, const std::string& token, seconds timeout);
    ~http_session();
    http_session(const http_session&) = delete;
    http_session& operator=(const http_session&) = delete;

    std::string text(const std::string& path);
    json page(const std::string& path);
    // Of the health pages: they say with 503 what is wrong.
    json verdict(const std::string& path);

private:
    std::string get(const std::string& path, bool may_be_unwell);
    json read(const std::string& path, bool may_be_unwell);

    struct client; // the library's, which nobody else has to compile
    std::string m_base;
    std::string m_token;
    seconds m_timeout;
    std::unique_ptr<client> m_client;
};

// The word in a token's file. Throws (usage) when there is none.
std::string read_token(const std::string& file);

// "a=1&b=2" with all encoded that would end a value; without those that are empty.
std::string query_text(const std::vector<std::pair<std::string_view, std::string>>& parameters);

} // namespace ctl
