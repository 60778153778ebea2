// responder - from a request's head to the bytes of the answer: who may ask, which page it is, how it leaves.
//
// Ownership  Owns the table of pages.
// Threads    Made on one thread; answer() may be called by several at once, and so are the pages.
// Blocking   As the pages do.
// Failures   A page that throws is answered with 500, or 503 when memory is short; a head that is no request with 400. answer() may throw
//            std::bad_alloc.
#pragma once

#include "net/http_refusals.h"

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace rtls {

inline constexpr char json_type[] = "application/json";

struct page_request {
    std::string rest; // of the path, behind that of a page that ends in a slash
    std::string accept;
    std::multimap<std::string, std::string> parameters;
};

struct page {
    int status = 200;
    std::string body;
    std::string type = json_type;
};

struct page_row {
    std::string path; // "/livez"; one that ends in a slash stands for all paths behind it
    std::function<page(const page_request&)> make;
};

// A page that says in JSON why there is no other.
page refusal_page(int status, std::string_view reason);

// The bytes of an answer behind which the connection ends, for requests that are not even read.
std::string refusal_bytes(int status, std::string_view reason);

struct http_answer {
    std::string bytes;
    bool keeps_open = false;             // the connection may ask again
    std::optional<http_refusal> refused; // the request, before any page was looked at
};

class responder {
public:
    // `token`: what clients must bring along as "Authorization: Bearer ...", or "".
    responder(std::vector<page_row> pages, std::string token);
    ~responder();
    responder(const responder&) = delete;
    responder& operator=(const responder&) = delete;

    // `head`: with the empty line that ends it.
    http_answer answer(std::string_view head);

private:
    class library;
    std::unique_ptr<library> m_library;
};

} // namespace rtls
