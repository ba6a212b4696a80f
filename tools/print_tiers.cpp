// Prints the tables of docs/cross-tier.md; tools/check_cross_tier compiles and runs it.
#include "Xtier/tiers/products.h"

#include <cstdio>
#include <cstring>
#include <string>

namespace {

struct KindName {
    uint32_t kind;
    const char *name;
};
constexpr KindName KINDS[] = {
    {FRAME_WEB, "web request"},          {FRAME_DATABASE, "database call"},
    {FRAME_RMI, "remote call"},          {FRAME_FILE, "file call"},
    {FRAME_APP_SERVER, "server's work"}, {FRAME_VIEW, "view object"},
    {FRAME_ENTITY, "entity object"},     {FRAME_EL, "EL expression"},
    {FRAME_GROOVY_LINE, "Groovy line"},  {FRAME_GROOVY_SCRIPT, "Groovy script"},
};

const char *NameOf(uint32_t kinds) {
    for (const KindName &row : KINDS)
        if (kinds & row.kind)
            return row.name;
    return nullptr; // the page engine, which is a web frame as well
}

std::string Code(const std::string &text) {
    return "`" + text + "`";
}

std::string Dotted(std::string name) {
    for (char &c : name)
        if (c == '/')
            c = '.';
    return name;
}

// "a,LA;|b,I" as `a` → `b`; a range of bytes with its two fields.
std::string Chain(std::string way) {
    std::string chain;
    while (!way.empty()) {
        const size_t bar = way.find('|');
        const std::string step = way.substr(0, bar), signature = step.substr(step.rfind(',') + 1);
        chain += (chain.empty() ? "" : " → ") + Code(step.substr(0, step.rfind(',')));
        if (const size_t plus = signature.find('+'); plus != std::string::npos)
            chain += ", from " + Code(signature.substr(3, plus - 3)) + ", " +
                     Code(signature.substr(plus + 1)) + " bytes";
        way = bar == std::string::npos ? "" : way.substr(bar + 1);
    }
    return chain.empty() ? "itself" : chain;
}

std::string Value(const QorTableWay &way) {
    const std::string chain = Chain(way.way);
    switch (way.form) {
    case FORM_ENVIRONMENT:
        return chain + ", a Hashtable, key `REQUEST_URI`";
    case FORM_CALL_ID:
        return chain + " → `id`, else its own `id`";
    default:
        return chain;
    }
}

std::string What(const QorTableWay &way) {
    std::string what = way.target->what;
    if (way.form == FORM_APPENDED)
        what += ", the rest";
    if (way.form == FORM_AFTER_DASH)
        what += ", after a dash";
    return way.method ? what + ", in frames of " + Code(way.method) : what;
}

void PrintFrames() {
    puts("| product | kind | class | method |\n|---|---|---|---|");
    for (const QorProduct &product : products::ALL)
        for (const QorTableFrame &row : product.frames)
            if (NameOf(row.kinds))
                printf("| %s | %s | %s | %s |\n", product.name, NameOf(row.kinds),
                       Code(row.className).c_str(),
                       strcmp(row.method, "*") == 0 ? "any" : Code(row.method).c_str());
}

void PrintObject(const QorTableObject &row) {
    std::string name = Code(Dotted(row.name));
    if (row.kinds & FRAME_ENTITY)
        name = "the local beside a " + name;
    for (const QorTableWay &way : row.ways)
        printf("| %s | %s | %s |\n", name.c_str(), What(way).c_str(), Value(way).c_str());
    if (row.kinds & OBJECT_PASSED_OVER)
        printf("| %s | nothing; it is passed over | |\n", name.c_str());
    else if (row.ways.begin() == row.ways.end())
        printf("| %s | nothing yet; it ends the search | |\n", name.c_str());
}

// The objects that are looked for, or those that others lead to.
void PrintObjects(bool areSearched) {
    puts("| object's class | what is read | by the fields |\n|---|---|---|");
    for (const QorProduct &product : products::ALL)
        for (const QorTableObject &row : product.objects)
            if ((row.kinds != 0) == areSearched)
                PrintObject(row);
}

} // namespace

int main(int argc, char **argv) {
    const std::string table = argc > 1 ? argv[1] : "";
    if (table == "frames")
        PrintFrames();
    else if (table == "objects" || table == "led-to")
        PrintObjects(table == "objects");
    return 0;
}
