// health - whether the daemon lives, and whether it serves: /livez and /readyz.
//
// It lives while both actors' loops have turned within three seconds and the log's thread is there: if not,
// only a restart helps. It is ready while both servers serve and every server upstream is connected.
// Ownership  The gateway outlives it.
// Threads    Any.
// Blocking   Nothing waits.
// Failures   The pages throw std::bad_alloc.
#pragma once

#include "http/json_text.h"
#include "http/responder.h"
#include "services.h"
#include "watch/actors_pulse.h"

namespace rtls {

// Whether both servers serve, and nobody has asked the daemon to stop. Any thread.
bool is_serving(const services& gateway);

// Every link upstream: name, whether it is up, since when, how often, and why it was not. The debug broker is
// among them when it has ever been there. Any thread.
json links_json(const services& gateway);

class health {
public:
    explicit health(const services& gateway) : m_gateway(gateway), m_pulse(gateway) {}

    page livez(const page_request& request) const;
    page readyz(const page_request& request) const;

private:
    const services& m_gateway;
    const actors_pulse m_pulse;
};

} // namespace rtls
