// The rules by which drivers and containers are read: a text of lines, and the tables made of it.
//
//   state  db  PREFIX               a runnable thread in a class that begins so waits for the database
//   frame  KIND CLASS METHOD        a frame whose locals hold an object of interest; any method: *
//   object KIND SIGNATURE           such an object's class
//     FIELD WAY                     what is found by this way through its fields
//
// KIND is db or web; FIELD is url, and of db also sql, user or socket. docs/cross-tier.md documents the rest.
// A text arrives in pieces in one of two arenas, while the other one is in force, and takes its place whole
// or not at all. A look-up costs a binary search, and the views ask once for each method of a walk.
//
// Worker only.
#pragma once

#include <cstdint>
#include <string_view>

enum : int32_t {
    TIER_TEXT_SIZE = 131072,
    TIER_LINES = 2048,
    TIER_WAY_SIZE = 4000, // bytes of a way
    TIER_STEPS = 50,      // steps of one
};

// What the rules say of a method, as bits. The two of frames are the kinds of objects as well.
enum QorTierKind : uint32_t {
    TIER_DB_STATE = 1U << 0,
    TIER_DB = 1U << 1,
    TIER_WEB = 1U << 2,
};

enum QorTierField : int32_t { TIER_URL, TIER_SQL, TIER_USER, TIER_SOCKET };

// A field of a call record, and the way to it. The text belongs to the rules in force.
struct QorTierWay {
    QorTierField field;
    std::string_view way;
};

// The ways of all `object` lines of one kind and class, in the order of the text.
struct QorTierObject {
    std::string_view signature;
    uint32_t kind;
    int32_t line;
    const QorTierWay *begin, *end;
};
struct QorTierObjects {
    const QorTierObject *first, *last; // behind the last one
};

// Why a text was refused: `reason` is null when it wasn't. Line 0: the text as a whole.
struct QorTierFault {
    int32_t line;
    const char *reason;
};

// Starts a new text, dropping one that was begun.
void QorBeginTiers();

// Appends a piece; line ends may be carriage returns. False when no text was begun.
bool QorAddTiers(const char *piece);

// Ends the text and puts it in force, if its CRC-32 (of zip, with line feeds as line ends) is the one given
// and no line is bad. Otherwise the old rules stay.
QorTierFault QorEndTiers(uint32_t crc);

// The text in force, with line feeds; the lines in it, and its CRC-32.
std::string_view QorTierText();
int32_t QorTierLineCount();
uint32_t QorTierCrc();

// What the rules say of a method; the class's name is dotted.
uint32_t QorTierKindsOf(const char *className, const char *method);

// The `object` lines of a class, by its JVM signature.
QorTierObjects QorFindTierObjects(const char *signature);

// Whether there is one of these kinds.
bool QorIsTierObject(const char *signature, uint32_t kinds);
