#include "http/http_server.h"

#include "http/api.h"
#include "http/health.h"
#include "http/http_door.h"
#include "http/metrics_text.h"
#include "http/responder.h"

#include <utility>
#include <vector>

namespace rtls {

template <typename Owner>
static auto calling(const Owner& owner, page (Owner::*make)(const page_request&) const)
{
    return [&owner, make](const page_request& request) { return (owner.*make)(request); };
}

static std::vector<page_row> pages_of(const services& gateway, const health& checks, const api& facts)
{
    return {
        {"/livez", calling(checks, &health::livez)},
        {"/readyz", calling(checks, &health::readyz)},
        {"/metrics", [&gateway](const page_request& request) { return metrics_page(gateway, request); }},
        {"/version", calling(facts, &api::version)},
        {"/api/v1/status", calling(facts, &api::status)},
        {"/api/v1/bridges", calling(facts, &api::bridges)},
        {"/api/v1/nodes", calling(facts, &api::nodes)},
        {"/api/v1/nodes/", calling(facts, &api::node)},
        {"/api/v1/operators", calling(facts, &api::operators)},
        {"/api/v1/firmware", calling(facts, &api::firmware)},
    };
}

struct http_server::state {
    state(services& gateway, http_rules read)
        : rules(std::move(read)), checks(gateway), facts(gateway),
          answers(pages_of(gateway, checks, facts), rules.token), door(answers, gateway.http)
    {
    }
    ~state() { facts.stop(); } // the door waits for the pages that are being made
    state(const state&) = delete;
    state& operator=(const state&) = delete;

    const http_rules rules;
    health checks;
    api facts;
    responder answers;
    http_door door; // ends first
};

http_server::http_server(services& gateway, http_rules rules)
    : m_state(std::make_unique<state>(gateway, std::move(rules)))
{
}

http_server::~http_server() = default;

bool http_server::open()
{
    return m_state->door.open(m_state->rules);
}

} // namespace rtls
