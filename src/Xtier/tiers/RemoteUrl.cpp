#include "RemoteUrl.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace {

using Text = std::string_view;

constexpr char SCHEME_END[] = "://";
constexpr int32_t LARGEST_PORT = 65535;

struct DefaultPort {
    Text scheme;
    int32_t port;
};
constexpr DefaultPort DEFAULT_PORTS[] = {{"http", 80}, {"https", 443}};

bool IsLetterOrDigit(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool IsHost(Text host, const char *marks) {
    return !host.empty() && std::all_of(host.begin(), host.end(), [marks](char c) {
        return IsLetterOrDigit(c) || (c && strchr(marks, c));
    });
}

// What comes before the first of `ends`, which goes too.
Text Take(Text *text, const char *ends) {
    const size_t at = std::min(text->find_first_of(ends), text->size());
    Text taken = *text;
    taken.remove_suffix(taken.size() - at);
    text->remove_prefix(std::min(at + 1, text->size()));
    return taken;
}

// 0 for what isn't a port.
int32_t PortOf(Text digits) {
    int32_t port = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9' || port > LARGEST_PORT)
            return 0;
        port = port * 10 + (c - '0');
    }
    return port <= LARGEST_PORT ? port : 0;
}

// The scheme, which is cut off with the slashes after it; "" when there is none.
Text TakeScheme(Text *url) {
    const size_t at = url->find(SCHEME_END);
    if (at == Text::npos || url->find_first_of("/?#@") < at)
        return {};
    Text scheme = *url;
    scheme.remove_suffix(scheme.size() - at);
    url->remove_prefix(at + sizeof SCHEME_END - 1);
    if (!url->empty() && url->front() == '/')
        url->remove_prefix(1);
    return scheme;
}

int32_t DefaultOf(Text scheme) {
    for (const DefaultPort &row : DEFAULT_PORTS)
        if (row.scheme == scheme)
            return row.port;
    return 0;
}

} // namespace

bool QorReadRemoteUrl(const char *url, char *host, int32_t capacity, int32_t *port) {
    Text rest(url);
    host[0] = 0;
    *port = 0;
    const Text scheme = TakeScheme(&rest);
    Text authority = Take(&rest, "/?#");
    authority.remove_prefix(std::min(authority.rfind('@') + 1, authority.size()));
    const bool isAddress = !authority.empty() && authority.front() == '[';
    if (isAddress)
        authority.remove_prefix(1);
    const bool isClosed = authority.find(']') != Text::npos;
    const Text name = Take(&authority, isAddress ? "]" : ":");
    if (isAddress && !authority.empty() && authority.front() == ':')
        authority.remove_prefix(1);
    const int32_t found = authority.empty() ? DefaultOf(scheme) : PortOf(authority);
    const bool isPort = authority.empty() ? !scheme.empty() : found > 0;
    if (!isPort || isClosed != isAddress || !IsHost(name, isAddress ? ".:%" : ".-_") ||
        name.size() >= static_cast<size_t>(capacity))
        return false;
    memcpy(host, name.data(), name.size());
    host[name.size()] = 0;
    *port = found;
    return true;
}

namespace {

// Puts at most three stars in the place of [start, end); returns where the text goes on.
char *Hide(char *start, char *end) {
    constexpr char STARS[] = "***";
    const size_t stars = std::min(static_cast<size_t>(end - start), sizeof STARS - 1);
    memcpy(start, STARS, stars);
    memmove(start + stars, end, strlen(end) + 1);
    return start + stars;
}

// "://user:secret@host" and "user/secret@host"; a user alone stays. Elsewhere than in JDBC, whose passwords
// may have slashes, the first slash after the host begins a path, where "@" is just a character.
void HideBeforeHost(char *url) {
    const bool isJdbc = strncmp(url, "jdbc:", 5) == 0;
    char *const found = strstr(url, "://");
    const bool hasScheme = found && found < url + strcspn(url, "?;");
    char *const user = hasScheme ? found + 3 : url;
    const char *const behind = hasScheme && !isJdbc ? "/?#;" : "?;";
    char *const at = url[0] == '/' ? nullptr : static_cast<char *>(memrchr(user, '@', strcspn(user, behind)));
    char *const end =
        at ? static_cast<char *>(memchr(user, hasScheme ? ':' : '/', static_cast<size_t>(at - user)))
           : nullptr;
    if (end)
        Hide(end + 1, at);
}

// Where a property's value ends: at the URL's own separator, as it may hold the other one, within
// "(name=value)" also at the parenthesis or a comma, and for "{value}" at the brace.
char *EndOfValue(const char *url, char *value) {
    const auto *open = static_cast<const char *>(memrchr(url, '(', static_cast<size_t>(value - url)));
    const bool isInside = open && !memchr(open, ')', static_cast<size_t>(value - open));
    char *const brace = value[0] == '{' ? strchr(value, '}') : nullptr;
    if (brace)
        return brace + 1;
    return value + strcspn(value, isInside ? "&;,)" : url[strcspn(url, "?;")] == ';' ? ";" : "&");
}

void HideProperties(char *url, const char *name) {
    for (char *at = url; (at = strcasestr(at, name));) {
        at += strlen(name);
        at += strspn(at, "0123456789"); // one of several
        if (*at == '=') {
            at++;
            at = Hide(at, EndOfValue(url, at));
        }
    }
}

} // namespace

void QorHidePasswords(char *url) {
    HideBeforeHost(url);
    for (const char *name : {"password", "passwd", "pwd", "secret", "token"})
        HideProperties(url, name);
}
