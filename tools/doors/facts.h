// facts - what a gateway knows, whichever of its ports tells it: with the names and values of the HTTP port's pages.
// What the terminal does not tell is null there.
//
// Threads    One at a time for each gateway.
// Blocking   For answers, as long as the gateway's time-out.
// Failures   Thrown, see failure.h. Answers with fields missing throw json's exceptions, which the caller tells.
#pragma once

#include "doors/gateway.h"

#include <string>

namespace ctl {

// Which nodes are meant. What is empty does not matter.
struct node_filter {
    std::string state;  // "connected", "floating", "expired"
    std::string bridge; // digits of its MAC, see macs.h
    std::string text;   // in the MAC, the role or the address; case does not count
    std::string role;   // "fixed" and so on
};

json nodes_of(gateway& g, const node_filter& filter); // [...], in the order of their MACs
json bridges_of(gateway& g);                          // {"bridges": [...]}
json operators_of(gateway& g);                        // {"operators": [...]}
json firmware_of(gateway& g);                         // {"slots", "images", "announced"}

// {"version", "live", "ready", "checks"}: what the terminal cannot say is null.
json health_of(gateway& g);

// The nodes whose MAC ends with these digits.
json nodes_with_mac(gateway& g, const std::string& digits);

// The one of these; thrown (refused) when there is none, or more than one.
json node_with_mac(gateway& g, const std::string& digits);

} // namespace ctl
