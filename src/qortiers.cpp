#include "qortiers.h"

#include <algorithm>
#include <cstring>

namespace {

using Text = std::string_view;

struct FrameRule {
    Text className, method;
    uint32_t kind;
};

// A text with its tables, which hold pieces of it.
struct Arena {
    char text[TIER_TEXT_SIZE];
    int32_t length;
    bool overflown; // more was sent than fits
    int32_t lines;
    Text states[TIER_LINES];
    FrameRule frames[TIER_LINES];
    QorTierObject objects[TIER_LINES];
    QorTierWay ways[TIER_LINES];
    int32_t stateCount, frameCount, objectCount, wayCount;
};

Arena arenas[2];
Arena *inForce = &arenas[0];
bool begun; // the other arena is being filled

constexpr char ANY_METHOD[] = "*";
constexpr Text BYTE_ARRAY = "[B";

struct FieldName {
    Text name;
    QorTierField field;
    uint32_t kinds; // that have it
};
constexpr FieldName FIELDS[] = {
    {"url", TIER_URL, TIER_DB | TIER_WEB},
    {"sql", TIER_SQL, TIER_DB},
    {"user", TIER_USER, TIER_DB},
    {"socket", TIER_SOCKET, TIER_DB},
};

Arena *Filling() {
    return inForce == &arenas[0] ? &arenas[1] : &arenas[0];
}

uint32_t Crc32(Text text) {
    uint32_t crc = 0xffffffffU;
    for (const char c : text) {
        crc ^= static_cast<unsigned char>(c);
        for (int bit = 0; bit < 8; bit++)
            crc = crc & 1 ? crc >> 1 ^ 0xedb88320U : crc >> 1;
    }
    return ~crc;
}

// The text from `from` on, at most `size` bytes of it. The standard's own throws, and what throws brings its
// machinery along.
Text Piece(Text text, size_t from, size_t size = Text::npos) {
    text.remove_prefix(std::min(from, text.size()));
    text.remove_suffix(text.size() - std::min(size, text.size()));
    return text;
}

// Cuts the text off in front of the first of `ends`, which goes too; all of it when there is none.
Text Take(Text *text, const char *ends) {
    const size_t at = text->find_first_of(ends);
    const Text taken = Piece(*text, 0, at);
    text->remove_prefix(at == Text::npos ? text->size() : at + 1);
    return taken;
}

Text TakeWord(Text *line) {
    const size_t start = line->find_first_not_of(" \t");
    line->remove_prefix(start == Text::npos ? line->size() : start);
    return Take(line, " \t");
}

bool IsName(Text text) {
    return !text.empty() && text.find_first_of(",|@:;[/.") == Text::npos;
}

bool IsClassSignature(Text text) {
    return text.size() > 2 && text.front() == 'L' && text.back() == ';' &&
           Piece(text, 1, text.size() - 2).find_first_of(";,|@:[.") == Text::npos;
}

bool IsArrayOfObjects(Text text) {
    const size_t rank = text.find_first_not_of('[');
    return rank != 0 && rank != Text::npos &&
           (IsClassSignature(Piece(text, rank)) || (rank > 1 && text.size() == rank + 1));
}

// A step leads to an object, to an element of an array or, as the last one, to a range of a byte array.
const char *FaultOfStep(Text step, bool isLast, bool isSocket) {
    const Text name = Take(&step, ",");
    const Text signature = Piece(step, 0, step.find_first_of("@:"));
    Text end = Piece(step, signature.size());
    if (!IsName(name))
        return "a step needs the form FIELD,SIGNATURE";
    if (end.empty())
        return IsClassSignature(signature) ? nullptr
                                           : "a step's signature isn't that of a class; see @ and :";
    const bool isElement = end.front() == '@';
    end.remove_prefix(1);
    if (isElement)
        return IsArrayOfObjects(signature) && IsName(end) ? nullptr : "@FIELD follows an array of objects";
    const Text from = Take(&end, ":");
    if (signature != BYTE_ARRAY || !IsName(from) || !IsName(end))
        return ":FROM:TO follows a byte array, [B";
    return isLast && !isSocket ? nullptr : ":FROM:TO ends a way to a text";
}

const char *FaultOfWay(Text way, bool isSocket) {
    if (way.size() > TIER_WAY_SIZE)
        return "a way is longer than 4000 bytes";
    int32_t steps = 0;
    do {
        if (++steps > TIER_STEPS)
            return "a way has more than 50 steps";
        const size_t bar = way.find('|');
        if (bar == way.size() - 1)
            return "a way ends in a bar";
        const Text step = Take(&way, "|");
        if (const char *fault = FaultOfStep(step, way.empty(), isSocket))
            return fault;
    } while (!way.empty());
    return nullptr;
}

uint32_t KindOf(Text word) {
    if (word == "db")
        return TIER_DB;
    if (word == "web")
        return TIER_WEB;
    return 0;
}

// The lines' readers get what follows the first word, and return a fault or null.
const char *ReadState(Arena *arena, Text rest) {
    const Text kind = TakeWord(&rest), prefix = TakeWord(&rest);
    if (kind != "db" || prefix.empty() || !TakeWord(&rest).empty())
        return "a state needs the form: state db PREFIX";
    arena->states[arena->stateCount++] = prefix;
    return nullptr;
}

const char *ReadFrame(Arena *arena, Text rest) {
    const uint32_t kind = KindOf(TakeWord(&rest));
    const Text className = TakeWord(&rest), method = TakeWord(&rest);
    if (kind == 0 || method.empty() || !TakeWord(&rest).empty())
        return "a frame needs the form: frame db|web CLASS METHOD";
    if (className.find_first_of("/;") != Text::npos)
        return "a frame's class is written with points";
    arena->frames[arena->frameCount++] = {className, method, kind};
    return nullptr;
}

const char *ReadObject(Arena *arena, Text rest) {
    const uint32_t kind = KindOf(TakeWord(&rest));
    const Text signature = TakeWord(&rest);
    if (kind == 0 || !TakeWord(&rest).empty())
        return "an object needs the form: object db|web SIGNATURE";
    if (!IsClassSignature(signature))
        return "an object's signature needs the form Lpackage/Class; with slashes";
    const QorTierWay *ways = arena->ways + arena->wayCount;
    arena->objects[arena->objectCount++] = {signature, kind, arena->lines, ways, ways};
    return nullptr;
}

const char *ReadWay(Arena *arena, Text name, Text rest) {
    const Text way = TakeWord(&rest);
    const auto *known = std::find_if(std::begin(FIELDS), std::end(FIELDS),
                                     [name](const FieldName &field) { return field.name == name; });
    if (known == std::end(FIELDS))
        return "the first word is none of state, frame, object, url, sql, user, socket";
    if (arena->objectCount == 0)
        return "a field needs an object above it";
    QorTierObject &object = arena->objects[arena->objectCount - 1];
    if (!(object.kind & known->kinds))
        return "an object of this kind has no such field";
    if (way.empty() || !TakeWord(&rest).empty())
        return "a field needs the form: FIELD WAY";
    if (const char *fault = FaultOfWay(way, known->field == TIER_SOCKET))
        return fault;
    arena->ways[arena->wayCount++] = {known->field, way};
    object.end++;
    return nullptr;
}

bool IsControl(char c) {
    return (static_cast<unsigned char>(c) < ' ' && c != '\t') || c == 127;
}

const char *ReadLine(Arena *arena, Text line) {
    if (++arena->lines > TIER_LINES)
        return "there are more than 2048 lines";
    if (std::any_of(line.begin(), line.end(), IsControl))
        return "there is a control character";
    const Text word = TakeWord(&line);
    if (word.empty() || word.front() == '#')
        return nullptr;
    if (word == "state")
        return ReadState(arena, line);
    if (word == "frame")
        return ReadFrame(arena, line);
    return word == "object" ? ReadObject(arena, line) : ReadWay(arena, word, line);
}

bool BeginsWith(Text text, Text start) {
    return Piece(text, 0, start.size()) == start;
}

// Drops prefixes that begin with another one: of the rest, a name can begin only with the one that comes last
// among those in front of it.
void SortStates(Arena *arena) {
    std::sort(arena->states, arena->states + arena->stateCount);
    int32_t kept = 0;
    for (int32_t i = 0; i < arena->stateCount; i++)
        if (kept == 0 || !BeginsWith(arena->states[i], arena->states[kept - 1]))
            arena->states[kept++] = arena->states[i];
    arena->stateCount = kept;
}

void SortTables(Arena *arena) {
    SortStates(arena);
    std::sort(arena->frames, arena->frames + arena->frameCount,
              [](const FrameRule &a, const FrameRule &b) { return a.className < b.className; });
    std::sort(arena->objects, arena->objects + arena->objectCount,
              [](const QorTierObject &a, const QorTierObject &b) {
                  return a.signature != b.signature ? a.signature < b.signature : a.line < b.line;
              });
}

QorTierFault ReadText(Arena *arena) {
    arena->lines = arena->stateCount = arena->frameCount = arena->objectCount = arena->wayCount = 0;
    for (Text rest(arena->text, static_cast<size_t>(arena->length)); !rest.empty();)
        if (const char *fault = ReadLine(arena, Take(&rest, "\n")))
            return {arena->lines, fault};
    SortTables(arena);
    return {0, nullptr};
}

} // namespace

void QorBeginTiers() {
    Arena *arena = Filling();
    arena->length = 0;
    arena->overflown = false;
    begun = true;
}

bool QorAddTiers(const char *piece) {
    Arena *arena = Filling();
    if (!begun)
        return false;
    for (; *piece && arena->length < TIER_TEXT_SIZE; piece++)
        arena->text[arena->length++] = *piece == '\r' ? '\n' : *piece;
    arena->overflown = arena->overflown || *piece;
    return true;
}

QorTierFault QorEndTiers(uint32_t crc) {
    Arena *arena = Filling();
    if (!begun)
        return {0, "no text was begun"};
    begun = false;
    if (arena->overflown)
        return {0, "the text is longer than 131072 bytes"};
    if (Crc32({arena->text, static_cast<size_t>(arena->length)}) != crc)
        return {
            0,
            "the text isn't whole, or not all of its characters are UTF-8 up to U+FFFF: its CRC-32 differs"};
    const QorTierFault fault = ReadText(arena);
    if (!fault.reason)
        inForce = arena;
    return fault;
}

std::string_view QorTierText() {
    return {inForce->text, static_cast<size_t>(inForce->length)};
}

int32_t QorTierLineCount() {
    return inForce->lines;
}

uint32_t QorTierCrc() {
    return Crc32(QorTierText());
}

uint32_t QorTierKindsOf(const char *className, const char *method) {
    const Arena &arena = *inForce;
    const Text name(className);
    uint32_t kinds = 0;
    const Text *states = arena.states;
    const Text *state = std::upper_bound(states, states + arena.stateCount, name);
    if (state != states && BeginsWith(name, state[-1]))
        kinds |= TIER_DB_STATE;
    const FrameRule *const end = arena.frames + arena.frameCount;
    const FrameRule *frame =
        std::lower_bound(static_cast<const FrameRule *>(arena.frames), end, name,
                         [](const FrameRule &rule, Text wanted) { return rule.className < wanted; });
    for (; frame != end && frame->className == name; frame++)
        if (frame->method == ANY_METHOD || frame->method == method)
            kinds |= frame->kind;
    return kinds;
}

QorTierObjects QorFindTierObjects(const char *signature) {
    const Text wanted(signature);
    const QorTierObject *const begin = inForce->objects, *const end = begin + inForce->objectCount;
    const QorTierObject *first = std::lower_bound(
        begin, end, wanted, [](const QorTierObject &object, Text text) { return object.signature < text; });
    const QorTierObject *last = first;
    while (last != end && last->signature == wanted)
        last++;
    return {first, last};
}

bool QorIsTierObject(const char *signature, uint32_t kinds) {
    const QorTierObjects found = QorFindTierObjects(signature);
    return std::any_of(found.first, found.last,
                       [kinds](const QorTierObject &object) { return (object.kind & kinds) != 0; });
}
