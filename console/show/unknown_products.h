// Drivers and containers that threads are in and that no rule describes, or one that shows nothing without a
// `state` line.
//
// Evidence, as a wrong hint is worse than none: a driver is a thread's first code under a read of a socket,
// in whose packages a JDBC call stands (executeQuery of a Statement, next of a ResultSet, ...); a container
// is the code that calls the servlet API. An application's own protocol over a socket is neither.
#pragma once

#include "json.h"
#include "wire/decode.h"

#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

struct UnknownProduct {
    std::string package; // its first three segments, "org.acme.db"
    bool container = false;
    bool lacks_state = false; // there is a rule
    int threads = 0;
};

// Whether the threads' stacks are worth a look: some wait for the network or a database, and what they do
// there isn't known.
bool MayBeUnknown(const ThreadSample &sample);

// Of a sample with stacks, those that no line of `rules` matches, or of drivers no `state` line; most threads
// first.
std::vector<UnknownProduct> FindUnknownProducts(const ThreadSample &stacks, std::string_view rules);

// A line for each; "" for none.
std::string UnknownProductsText(const std::vector<UnknownProduct> &products);
Json UnknownProductsJson(const std::vector<UnknownProduct> &products);

} // namespace qorctl
