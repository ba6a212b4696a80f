#include "unknown_products.h"

#include "base/starts_with.h"
#include "base/terminal.h"
#include "wire/records.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr std::string_view NETWORK_WAIT = "Network Wait", DB_WAIT = "DB Wait";
constexpr std::string_view JDK[] = {"java.", "javax.net.", "jdk.", "sun.", "com.sun."};
constexpr std::string_view SOCKETS[] = {"java.net.Socket", "sun.nio.ch.NioSocketImpl", "sun.nio.ch.Socket"};
constexpr std::string_view SERVLET_API[] = {"javax.servlet.", "jakarta.servlet."};
// Containers of the agent's own tables.
constexpr std::string_view KNOWN_CONTAINERS[] = {
    "org.apache.catalina.", "org.apache.jserv.", "com.halcyon.server.", "com.ibm.ws.", "ferrule.servlet.",
};

// What a driver's class is called, and how a method begins that waits for the server.
struct JdbcCall {
    std::string_view class_part, method;
};
constexpr JdbcCall JDBC_CALLS[] = {
    {"Statement", "execute"},           {"Statement", "getMoreResults"}, {"ResultSet", "next"},
    {"Connection", "commit"},           {"Connection", "rollback"},      {"Connection", "setAutoCommit"},
    {"Connection", "prepareStatement"},
};

template <class Prefixes>
bool IsOf(std::string_view class_name, const Prefixes &prefixes) {
    return std::any_of(std::begin(prefixes), std::end(prefixes),
                       [&](std::string_view prefix) { return StartsWith(class_name, prefix); });
}

// The package's first segments, at most `count`.
std::string_view Segments(std::string_view class_name, int count) {
    std::string_view package = class_name.substr(0, class_name.rfind('.'));
    size_t end = 0;
    for (; count > 0 && end != package.npos; --count)
        end = package.find('.', end + (end > 0));
    return package.substr(0, end);
}

bool IsJdbcCall(const Frame &frame) {
    std::string_view simple = frame.class_name;
    size_t point = simple.rfind('.');
    if (point == simple.npos)
        return false; // no product is without a package
    simple.remove_prefix(point + 1);
    return std::any_of(std::begin(JDBC_CALLS), std::end(JDBC_CALLS), [&](const JdbcCall &call) {
        return simple.find(call.class_part) != simple.npos && StartsWith(frame.method, call.method);
    });
}

// The rules in force, as far as they match frames.
class FrameRules {
public:
    explicit FrameRules(std::string_view text) {
        for (std::string_view line : Split(text, '\n')) {
            Fields words;
            for (std::string_view word : Split(line, ' '))
                if (!word.empty())
                    words.push_back(word);
            if (words.size() == 3 && words[0] == "state")
                states_.push_back(words[2]);
            else if (words.size() == 4 && words[0] == "frame" && !IsOf(words[2], SERVLET_API))
                frames_.push_back(std::move(words));
        }
    }

    bool MatchState(const Thread &thread) const {
        return std::any_of(thread.stack.begin(), thread.stack.end(),
                           [&](const Frame &frame) { return IsOf(frame.class_name, states_); });
    }

    // Of containers, or of anything else.
    bool MatchFrame(const Thread &thread, bool container) const {
        return std::any_of(thread.stack.begin(), thread.stack.end(), [&](const Frame &frame) {
            return std::any_of(frames_.begin(), frames_.end(), [&](const Fields &words) {
                return (words[1] == "web") == container && words[2] == frame.class_name &&
                       (words[3] == "*" || words[3] == frame.method);
            });
        });
    }

private:
    Fields states_;
    std::vector<Fields> frames_;
};

// The driver that a thread reads a socket in; null when it is in none.
const Frame *DriverFrame(const Thread &thread) {
    if (thread.state != NETWORK_WAIT || thread.db || thread.rmi)
        return nullptr;
    auto at = thread.stack.begin();
    bool reads = false;
    for (; at != thread.stack.end() && IsOf(at->class_name, JDK); ++at)
        reads = reads || IsOf(at->class_name, SOCKETS);
    if (!reads || at == thread.stack.end())
        return nullptr;
    std::string_view vendor = Segments(at->class_name, 2);
    for (; at != thread.stack.end(); ++at) {
        bool own = Segments(at->class_name, 2) == vendor;
        if (own && IsJdbcCall(*at))
            return &*at;
        if (!own && !IsOf(at->class_name, JDK))
            break;
    }
    return nullptr;
}

// The container that calls a thread's servlet or first filter; null when there is none.
const Frame *ContainerFrame(const Thread &thread) {
    if (thread.request_url)
        return nullptr;
    auto api = std::find_if(thread.stack.rbegin(), thread.stack.rend(), [](const Frame &frame) {
        return IsOf(frame.class_name, SERVLET_API) &&
               (frame.method == "service" || frame.method == "doFilter");
    });
    if (api == thread.stack.rend() || api == thread.stack.rbegin())
        return nullptr;
    const Frame &caller = *(api - 1); // the frame under it
    return caller.skipped > 0 || IsOf(caller.class_name, JDK) || IsOf(caller.class_name, KNOWN_CONTAINERS)
               ? nullptr
               : &caller;
}

void Count(const Frame &frame, bool container, bool lacks_state, std::vector<UnknownProduct> *products) {
    std::string package(Segments(frame.class_name, 3));
    auto known = std::find_if(products->begin(), products->end(), [&](const UnknownProduct &product) {
        return product.package == package && product.container == container &&
               product.lacks_state == lacks_state;
    });
    if (known == products->end())
        known = products->insert(known, {package, container, lacks_state, 0});
    ++known->threads;
}

} // namespace

bool MayBeUnknown(const ThreadSample &sample) {
    return std::any_of(sample.threads.begin(), sample.threads.end(), [](const Thread &thread) {
        bool selects = thread.call && StartsWith(thread.call->class_name, "sun.nio.ch.EPoll");
        return (thread.state == NETWORK_WAIT && !thread.db && !thread.rmi && !selects) ||
               (thread.state == DB_WAIT && !thread.request_url);
    });
}

std::vector<UnknownProduct> FindUnknownProducts(const ThreadSample &stacks, std::string_view text) {
    FrameRules rules(text);
    std::vector<UnknownProduct> products;
    for (const Thread &thread : stacks.threads) {
        const Frame *driver = DriverFrame(thread), *container = ContainerFrame(thread);
        if (driver && !rules.MatchState(thread))
            Count(*driver, false, rules.MatchFrame(thread, false), &products);
        if (container && !rules.MatchFrame(thread, true))
            Count(*container, true, false, &products);
    }
    std::stable_sort(products.begin(), products.end(),
                     [](const UnknownProduct &a, const UnknownProduct &b) { return a.threads > b.threads; });
    return products;
}

std::string UnknownProductsText(const std::vector<UnknownProduct> &products) {
    std::string text;
    for (const UnknownProduct &product : products) {
        bool one = product.threads == 1;
        text += fmt::format(
            "{} thread{} {} in {}.*: {}; see docs/cross-tier.md\n", product.threads, one ? "" : "s",
            product.container ? one ? "serves a request" : "serve requests"
            : one             ? "waits"
                              : "wait",
            Printable(product.package), product.lacks_state ? "a rule without state" : "no rule");
    }
    return text;
}

Json UnknownProductsJson(const std::vector<UnknownProduct> &products) {
    Json array = Json::array();
    for (const UnknownProduct &product : products)
        array.push_back({{"package", product.package},
                         {"kind", product.container ? "web" : "db"},
                         {"lacks_state", product.lacks_state},
                         {"threads", product.threads}});
    return array;
}

} // namespace qorctl
