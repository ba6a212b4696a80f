#include "copy.h"

#include "base/failure.h"
#include "base/terminal.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <fmt/format.h>

namespace qorctl {

std::string CopyChoice::Note() const {
    if (copied)
        return "by a copy of the JVM, which was paused for the copying alone\n";
    return why.empty() ? "" : fmt::format("the JVM was paused for it: {}\n", Printable(why));
}

bool OnlyByCopy(std::string_view reply) {
    constexpr std::string_view WORD = " only";
    return reply.size() > WORD.size() && reply.substr(reply.size() - WORD.size()) == WORD;
}

CopyChoice ChooseCopy(std::string_view reply) {
    constexpr std::string_view POSSIBLE = "forkstate=1", IMPOSSIBLE = "forkstate=0 forkdump=";
    CopyChoice choice;
    if (reply.substr(0, POSSIBLE.size()) == POSSIBLE) {
        choice.flags = FLAG_COPY;
        choice.copied = true;
    } else if (reply.substr(0, IMPOSSIBLE.size()) == IMPOSSIBLE && reply.size() > IMPOSSIBLE.size()) {
        choice.copied = reply[IMPOSSIBLE.size()] == '1';
        size_t reason = reply.find(' ', IMPOSSIBLE.size());
        if (reason != reply.npos)
            choice.why = reply.substr(reason + 1);
    } else {
        choice.why = "the agent is of a version without copies";
    }
    return choice;
}

CopyChoice AskForCopy(Connection *connection, const Settings &settings, std::string_view kind, bool stop) {
    std::string reply = connection->Ask(SettingRequest("forkstate", kind), settings.Due());
    if (!stop)
        return ChooseCopy(reply);
    if (OnlyByCopy(reply))
        throw Failure("this JVM is read by address: only a copy of it can walk its heap",
                      "leave --stop out; the JVM is paused for the copying alone");
    return {FLAG_NO_COPY, false, "by --stop"};
}

} // namespace qorctl
