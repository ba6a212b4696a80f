#include "attach.h"

#include "agent_jar.h"
#include "attach_channel.h"
#include "base/failure.h"
#include "bring.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <optional>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr size_t MAX_ATTACH_ARGUMENT = 1024; // the JVM's own limit
constexpr std::string_view STATUS_PROPERTY = "qoragent.status";

void CheckArgument(const std::string &jar, const std::string &argument) {
    if (jar.find('=') != jar.npos)
        throw Failure(fmt::format("the jar's path {} holds '=', where the JVM expects the options", jar),
                      "copy the jar to another path and give that with --jar", EXIT_USAGE);
    if (argument.size() >= MAX_ATTACH_ARGUMENT)
        throw Failure(fmt::format("the jar's path and the options take {} bytes, the JVM takes {}",
                                  argument.size(), MAX_ATTACH_ARGUMENT - 1),
                      "give fewer options", EXIT_USAGE);
}

// The JVM's own directories, to which its user can usually write.
std::vector<std::string> OwnPlaces(std::string_view properties) {
    std::vector<std::string> places;
    for (const char *key : {"java.io.tmpdir", "user.dir", "user.home"})
        places.push_back(PropertyValue(properties, key));
    return places;
}

// Results of the instrument library, as the JVM passes them on.
Failure LoadFailure(int result, const std::string &jar) {
    switch (result) {
    case 100:
        return Failure(fmt::format("the JVM can't use {} as an agent", jar), "check that it is qoragent.jar");
    case 102:
        return Failure("the agent's start failed in the JVM", "the JVM's standard error says why");
    default:
        return Failure(fmt::format("the JVM couldn't load the agent (code {})", result),
                       "the JVM's standard error says why");
    }
}

} // namespace

// First line: the outcome of the request itself. After it JDK 8 writes the library's result as a number,
// later ones "return code: N"; a refusal is plain text, and its first line may still be 0.
void CheckLoadReply(std::string_view reply, const std::string &jar) {
    if (reply.empty())
        throw Failure("the JVM hung up",
                      "it accepts its own user and group only; run qorctl as that user, or as root");
    size_t end = reply.find('\n');
    std::string_view status = reply.substr(0, end);
    std::string_view text = end == reply.npos ? std::string_view() : reply.substr(end + 1);
    text = text.substr(0, text.find_first_of("\r\n"));
    constexpr std::string_view RETURN_CODE = "return code: ";
    std::string_view code =
        text.substr(0, RETURN_CODE.size()) == RETURN_CODE ? text.substr(RETURN_CODE.size()) : text;
    int result = 0;
    auto [code_end, error] = std::from_chars(code.data(), code.data() + code.size(), result);
    if (error == std::errc() && code_end == code.data() + code.size()) {
        if (status == "0" && result == 0)
            return;
        throw LoadFailure(result, jar);
    }
    if (text.find("Dynamic agent loading is not enabled") != text.npos)
        throw Failure("the JVM was started with -XX:-EnableDynamicAgentLoading",
                      "start it with -XX:+EnableDynamicAgentLoading, or with -javaagent:qoragent.jar");
    if (text.empty() && status == "0")
        return; // a plain "0" alone
    if (text.empty())
        throw Failure(fmt::format("the JVM refused the attach request (code {})", status),
                      "its version may not be supported");
    throw Failure(fmt::format("the JVM refused the agent: {}", text),
                  "the JVM's standard error may say more");
}

void LoadAgent(const Process &process, const std::string &jar, const std::string &options,
               Clock::time_point deadline) {
    AttachChannel channel(process);
    std::optional<BroughtJar> brought;
    const std::string tail = options.empty() ? "" : "=" + options;
    if (Sight sight = LookForJar(process, jar); sight != Sight::READABLE) {
        if (access(jar.c_str(), R_OK) != 0)
            throw Unseen(process, jar, sight);
        const size_t longest = MAX_ATTACH_ARGUMENT - 1 - std::min(tail.size(), MAX_ATTACH_ARGUMENT - 1);
        brought.emplace(process, jar, OwnPlaces(channel.Ask({"properties", "", "", ""}, deadline, true)),
                        longest, deadline);
    }
    const std::string &path = brought ? brought->path() : jar;
    CheckArgument(path, path + tail);
    CheckLoadReply(channel.Ask({"load", "instrument", "false", path + tail}, deadline, true), path);
}

std::string AgentStatus(const Process &process, Clock::time_point deadline) {
    try {
        return PropertyValue(AttachChannel(process).Ask({"properties", "", "", ""}, deadline, false),
                             STATUS_PROPERTY);
    } catch (const Failure &) {
        return "";
    }
}

std::string PropertyValue(std::string_view text, std::string_view key) {
    std::string start = fmt::format("\n{}=", key);
    size_t at = text.find(start);
    std::string value;
    if (at == text.npos)
        return value;
    for (at += start.size(); at < text.size() && text[at] != '\n' && text[at] != '\r'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size())
            ++at;
        value += text[at];
    }
    return value;
}

} // namespace qorctl
