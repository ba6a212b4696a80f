#include "qortiers.h"

#include "qortierfilter.h"

#include <algorithm>
#include <cstring>

namespace {

using Text = std::string_view;

struct FrameRule {
    Text className, method;
    uint32_t kind;
};

struct Prefixes {
    Text list[TIER_LINES];
    int32_t count;
};

// A text with its tables, which hold pieces of it.
struct Arena {
    char text[TIER_TEXT_SIZE];
    int32_t length;
    bool overflown; // more was sent than fits
    int32_t lines;
    Prefixes states[2]; // in the order of STATE_KINDS
    FrameRule frames[TIER_LINES];
    QorTierObject objects[TIER_LINES];
    QorTierWay ways[TIER_LINES];
    int32_t frameCount, objectCount, wayCount;
    uint32_t frameKinds; // of all frames
    QorTierFilter filter;
};

Arena arenas[2];
Arena *inForce = &arenas[0];
bool begun; // the other arena is being filled

constexpr char ANY_METHOD[] = "*";
constexpr Text BYTE_ARRAY = "[B", INT = "I";

struct KindName {
    Text name;
    uint32_t kind, state;
};
constexpr KindName KINDS[] = {
    {"db", TIER_DB, TIER_DB_STATE},
    {"rmi", TIER_RMI, TIER_RMI_STATE},
    {"web", TIER_WEB, 0},
    {"file", TIER_FILE, 0},
};
constexpr uint32_t STATE_KINDS[] = {TIER_DB_STATE, TIER_RMI_STATE};

// What a way may end at besides an object.
enum WayEnd { END_OBJECT, END_TEXT, END_TEXT_OR_NUMBER };

struct FieldName {
    Text name;
    QorTierField field;
    uint32_t kinds; // that have it
    WayEnd end;
};
constexpr FieldName FIELDS[] = {
    {"url", TIER_URL, TIER_DB | TIER_WEB | TIER_RMI, END_TEXT},
    {"sql", TIER_SQL, TIER_DB, END_TEXT},
    {"user", TIER_USER, TIER_DB, END_TEXT},
    {"socket", TIER_SOCKET, TIER_DB | TIER_RMI, END_OBJECT},
    {"host", TIER_HOST, TIER_RMI, END_TEXT},
    {"port", TIER_PORT, TIER_RMI, END_TEXT_OR_NUMBER},
    {"name", TIER_NAME, TIER_RMI, END_TEXT},
    {"path", TIER_PATH, TIER_FILE, END_TEXT},
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

// Cuts the text off before the first of `ends`, which goes too; all of it when there is none.
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

// A step leads to an object, to an element of an array or, as the last one, to a range of a byte array or to
// a number.
const char *FaultOfStep(Text step, bool isLast, WayEnd wayEnd) {
    const Text name = Take(&step, ",");
    const Text signature = Piece(step, 0, step.find_first_of("@:"));
    Text end = Piece(step, signature.size());
    if (!IsName(name))
        return "a step needs the form FIELD,SIGNATURE";
    if (end.empty())
        return IsClassSignature(signature) || (signature == INT && isLast && wayEnd == END_TEXT_OR_NUMBER)
                   ? nullptr
                   : "a step's signature isn't that of a class; see @ and :";
    const bool isElement = end.front() == '@';
    end.remove_prefix(1);
    if (isElement)
        return IsArrayOfObjects(signature) && IsName(end) ? nullptr : "@FIELD follows an array of objects";
    const Text from = Take(&end, ":");
    if (signature != BYTE_ARRAY || !IsName(from) || !IsName(end))
        return ":FROM:TO follows a byte array, [B";
    return isLast && wayEnd != END_OBJECT ? nullptr : ":FROM:TO ends a way to a text";
}

const char *FaultOfWay(Text way, WayEnd end) {
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
        if (const char *fault = FaultOfStep(step, way.empty(), end))
            return fault;
    } while (!way.empty());
    return nullptr;
}

KindName KindOf(Text word) {
    const auto *known = std::find_if(std::begin(KINDS), std::end(KINDS),
                                     [word](const KindName &kind) { return kind.name == word; });
    return known == std::end(KINDS) ? KindName{{}, 0, 0} : *known;
}

// Whether the rest of a line is nothing or this word.
bool EndsIn(Text rest, Text word, bool *isThere) {
    const Text found = TakeWord(&rest);
    *isThere = found == word;
    return (found.empty() || *isThere) && TakeWord(&rest).empty();
}

// The lines' readers get what follows the first word, and return a fault or null.
const char *ReadState(Arena *arena, Text rest) {
    const uint32_t kind = KindOf(TakeWord(&rest)).state;
    const Text prefix = TakeWord(&rest);
    if (kind == 0 || prefix.empty() || !TakeWord(&rest).empty())
        return "a state needs the form: state db|rmi PREFIX";
    Prefixes &states = arena->states[kind == TIER_RMI_STATE];
    states.list[states.count++] = prefix;
    return nullptr;
}

const char *ReadFrame(Arena *arena, Text rest) {
    const uint32_t kind = KindOf(TakeWord(&rest)).kind;
    const Text className = TakeWord(&rest), method = TakeWord(&rest);
    if (kind == 0 || method.empty() || !TakeWord(&rest).empty())
        return "a frame needs the form: frame db|web|rmi|file CLASS METHOD";
    if (className.find_first_of("/;") != Text::npos)
        return "a frame's class is written with dots";
    arena->frames[arena->frameCount++] = {className, method, kind};
    arena->frameKinds |= kind;
    return nullptr;
}

const char *ReadObject(Arena *arena, Text rest) {
    const uint32_t kind = KindOf(TakeWord(&rest)).kind;
    const Text signature = TakeWord(&rest);
    bool isRead = false;
    if (kind == 0 || !EndsIn(rest, "read", &isRead))
        return "an object needs the form: object db|web|rmi|file SIGNATURE [read]";
    if (!IsClassSignature(signature))
        return "an object's signature needs the form Lpackage/Class; with slashes";
    const QorTierWay *ways = arena->ways + arena->wayCount;
    arena->objects[arena->objectCount++] = {signature,    kind, arena->lines, isRead,
                                            TIER_UNTRIED, {},   ways,         ways};
    return nullptr;
}

const char *ReadWay(Arena *arena, Text name, Text rest) {
    const Text way = TakeWord(&rest);
    const auto *known = std::find_if(std::begin(FIELDS), std::end(FIELDS),
                                     [name](const FieldName &field) { return field.name == name; });
    if (known == std::end(FIELDS))
        return "the first word is neither state, frame, object nor a field: url, sql, user, socket, host, "
               "port, name, path";
    if (arena->objectCount == 0)
        return "a field needs an object above it";
    QorTierObject &object = arena->objects[arena->objectCount - 1];
    if (!(object.kind & known->kinds))
        return "an object of this kind has no such field";
    bool isLast = false;
    if (way.empty() || !EndsIn(rest, "last", &isLast))
        return "a field needs the form: FIELD WAY [last]";
    if (const char *fault = FaultOfWay(way, known->end))
        return fault;
    arena->ways[arena->wayCount++] = {known->field, isLast, way};
    object.end++;
    return nullptr;
}

// Those of C0 and, in UTF-8, of C1; a tab is a blank.
bool HasControl(Text line) {
    unsigned char before = 0;
    for (const char c : line) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte < ' ' && byte != '\t') || byte == 127 || (before == 0xc2 && byte < 0xa0))
            return true;
        before = byte;
    }
    return false;
}

const char *ReadLine(Arena *arena, Text line) {
    if (++arena->lines > TIER_LINES)
        return "there are more than 2048 lines";
    if (HasControl(line))
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
// among those before it.
void SortStates(Prefixes *states) {
    std::sort(states->list, states->list + states->count);
    int32_t kept = 0;
    for (int32_t i = 0; i < states->count; i++)
        if (kept == 0 || !BeginsWith(states->list[i], states->list[kept - 1]))
            states->list[kept++] = states->list[i];
    states->count = kept;
}

bool IsState(const Prefixes &states, Text name) {
    const Text *state = std::upper_bound(states.list, states.list + states.count, name);
    return state != states.list && BeginsWith(name, state[-1]);
}

// A product by the first two parts of its packages: of "Lorg/driver/net/A;" it is "org/driver".
Text ProductOf(Text signature) {
    Text rest = Piece(signature, 1);
    Take(&rest, "/");
    Take(&rest, "/");
    return Piece(signature, 1, signature.size() - rest.size() - 2);
}

// Whether a state of the kind is one of classes of the product, whose name has slashes.
bool HasState(const Prefixes &states, Text product) {
    return std::any_of(states.list, states.list + states.count, [product](Text state) {
        return std::equal(product.begin(), product.end(), state.begin(),
                          state.begin() + std::min(state.size(), product.size()),
                          [](char a, char b) { return a == (b == '.' ? '/' : b); });
    });
}

void NameProducts(Arena *arena) {
    for (int32_t i = 0; i < arena->objectCount; i++) {
        QorTierObject &object = arena->objects[i];
        const Text product = ProductOf(object.signature);
        if (!(object.kind & (TIER_DB | TIER_RMI)))
            continue;
        if (object.isRead || HasState(arena->states[object.kind == TIER_RMI], product))
            object.product = product;
    }
}

void SortTables(Arena *arena) {
    arena->filter.Clear();
    for (Prefixes &states : arena->states) {
        SortStates(&states);
        for (int32_t i = 0; i < states.count; i++)
            arena->filter.AddStart(states.list[i]);
    }
    NameProducts(arena);
    for (int32_t i = 0; i < arena->frameCount; i++)
        arena->filter.AddName(arena->frames[i].className);
    std::sort(arena->frames, arena->frames + arena->frameCount,
              [](const FrameRule &a, const FrameRule &b) { return a.className < b.className; });
    std::sort(arena->objects, arena->objects + arena->objectCount,
              [](const QorTierObject &a, const QorTierObject &b) {
                  return a.signature != b.signature ? a.signature < b.signature : a.line < b.line;
              });
}

QorTierFault ReadText(Arena *arena) {
    arena->lines = arena->frameCount = arena->objectCount = arena->wayCount = 0;
    arena->states[0].count = arena->states[1].count = 0;
    arena->frameKinds = 0;
    for (Text rest(arena->text, static_cast<size_t>(arena->length)); !rest.empty();)
        if (const char *fault = ReadLine(arena, Take(&rest, "\n")))
            return {arena->lines, fault};
    SortTables(arena);
    return {0, nullptr};
}

// Modified UTF-8 has a character above U+FFFF as two surrogates of three bytes each, and the sender's CRC is
// of its four bytes.
void JoinSurrogates(Arena *arena) {
    constexpr int32_t PAIR = 6;
    if (arena->length < PAIR)
        return;
    auto *bytes = reinterpret_cast<unsigned char *>(arena->text + arena->length - PAIR);
    const bool isPair = bytes[0] == 0xed && bytes[1] >> 4 == 0xa && bytes[3] == 0xed && bytes[4] >> 4 == 0xb;
    if (!isPair)
        return;
    const uint32_t high = (bytes[1] & 0xfU) << 6 | (bytes[2] & 0x3fU);
    const uint32_t low = (bytes[4] & 0xfU) << 6 | (bytes[5] & 0x3fU);
    const uint32_t character = 0x10000 + (high << 10 | low);
    for (int32_t i = 0; i < 4; i++)
        bytes[i] =
            static_cast<unsigned char>((i ? 0x80U : 0xf0U) | (character >> 6 * (3 - i) & (i ? 0x3fU : 7U)));
    arena->length -= 2;
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
    for (; *piece && arena->length < TIER_TEXT_SIZE; piece++) {
        arena->text[arena->length++] = *piece == '\r' ? '\n' : *piece;
        JoinSurrogates(arena);
    }
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
        return {0, "the text isn't whole, or isn't UTF-8: its CRC-32 differs"};
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
    if (!arena.filter.MayHave(name))
        return 0;
    for (const uint32_t kind : STATE_KINDS)
        if (IsState(arena.states[kind == TIER_RMI_STATE], name))
            kinds |= kind;
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
    QorTierObject *const begin = inForce->objects, *const end = begin + inForce->objectCount;
    QorTierObject *first = std::lower_bound(
        begin, end, wanted, [](const QorTierObject &object, Text text) { return object.signature < text; });
    QorTierObject *last = first;
    while (last != end && last->signature == wanted)
        last++;
    return {first, last};
}

bool QorIsTierObject(const char *signature, uint32_t kinds) {
    const QorTierObjects found = QorFindTierObjects(signature);
    return std::any_of(found.first, found.last, [kinds](const QorTierObject &object) {
        return (object.kind & kinds) != 0 && object.fit != TIER_OFF;
    });
}

bool QorTiersKnowRemoteCalls() {
    return inForce->states[1].count > 0 && (inForce->frameKinds & TIER_RMI);
}
