// What strangers send to the HTTP port: any bytes are answered once, by an answer that is whole.
#include "http/json_text.h"
#include "http/metrics_text.h"
#include "http/node_query.h"
#include "http/request_head.h"
#include "http/responder.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

using namespace rtls;

static void require(bool holds)
{
    if (!holds)
        abort();
}

static page nodes(const page_request& request)
{
    std::string fault;
    node_row row{};
    row.bridge = no_bridge;
    const auto query = node_query::read(request.parameters, fault);
    require(query.has_value() == fault.empty());
    if (!query)
        return refusal_page(400, fault);
    return {200, json_text({{"matches", query->matches(row, {})}, {"rest", request.rest}})};
}

static page metrics(const page_request& request)
{
    return {200, json_text({{"format", static_cast<int>(wanted_format(request.accept))}})};
}

static size_t content_length(std::string_view head)
{
    constexpr std::string_view name = "Content-Length: ";
    const size_t at = head.find(name);
    require(at != std::string_view::npos);
    return std::stoul(std::string{head.substr(at + name.size(), 20)});
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static responder pages{{{"/nodes", nodes}, {"/nodes/", nodes}, {"/metrics", metrics}}, ""};
    const std::string_view input{reinterpret_cast<const char*>(data), size};
    const size_t head_size = request_head_size(input);
    const std::string head = head_size != 0 ? std::string{input.substr(0, head_size)}
                                            : "GET " + std::string{input} + " HTTP/1.1\r\n\r\n";
    const http_answer answer = pages.answer(head);
    require(answer.bytes.starts_with("HTTP/1.1 "));
    const size_t answer_head = request_head_size(answer.bytes);
    require(answer_head != 0);
    const std::string_view body = std::string_view{answer.bytes}.substr(answer_head);
    if (head.starts_with("HEAD ")) {
        require(body.empty() || answer.bytes.find(" 400 ") != std::string::npos);
        return 0;
    }
    require(content_length(answer.bytes) == body.size());
    require(json::accept(body));
    return 0;
}
