// The rules by which drivers and containers are read: a text of lines, and the tables made of it.
//
//   state  KIND PREFIX              a thread in a class that begins so waits for a database or a remote call
//   frame  KIND CLASS METHOD        a frame whose locals hold an object of interest; any method: *
//   object KIND SIGNATURE [read]    such an object's class; "read": never tried with the product
//     FIELD WAY [last]              what is found by this way through its fields; "last": if no other finds
//     it
//
// KIND is db, web, rmi or file, of a state db or rmi; docs/cross-tier.md documents fields and ways.
// A text arrives in pieces in one of two arenas, while the other one is in force, and takes its place whole
// or not at all. The views ask once for each method of a walk, and nearly always get a quick no.
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

// What the rules say of a method, as bits. Those of frames are the kinds of objects as well.
enum QorTierKind : uint32_t {
    TIER_DB_STATE = 1U << 0,
    TIER_RMI_STATE = 1U << 1,
    TIER_DB = 1U << 2,
    TIER_WEB = 1U << 3,
    TIER_RMI = 1U << 4,
    TIER_FILE = 1U << 5,
    TIER_OBJECTS = TIER_DB | TIER_WEB | TIER_RMI | TIER_FILE,
};

enum QorTierField : int32_t {
    TIER_URL,
    TIER_SQL,
    TIER_USER,
    TIER_SOCKET,
    TIER_HOST,
    TIER_PORT,
    TIER_NAME,
    TIER_PATH
};

// A field of a call record, and the way to it. The text belongs to the rules in force.
struct QorTierWay {
    QorTierField field;
    bool isLast; // tried when all other ways of the thread have left the field empty
    std::string_view way;
};

// Whether the first way of an object known from sources alone fits the class that is loaded.
enum QorTierFit : int32_t { TIER_UNTRIED, TIER_FITS, TIER_OFF };

// An `object` line with its ways.
struct QorTierObject {
    std::string_view signature;
    uint32_t kind;
    int32_t line;
    bool isRead;
    QorTierFit fit;           // of one with isRead; who follows its ways sets it
    std::string_view product; // of db and rmi: whose class it is; "" without `state` and "read"
    const QorTierWay *begin, *end;
};
// Those of one class, in the order of the text.
struct QorTierObjects {
    QorTierObject *first, *last; // last: one past the end
};

// Why a text was refused: `reason` is null when it wasn't. Line 0: the text as a whole.
struct QorTierFault {
    int32_t line;
    const char *reason;
};

// Starts a new text, dropping one that was begun.
void QorBeginTiers();

// Appends a piece of modified UTF-8; line ends may be carriage returns. False when no text was begun.
bool QorAddTiers(const char *piece);

// Ends the text and puts it in force, if its CRC-32 (of zip, with line feeds as line ends) is the one given
// and no line is bad. Otherwise the old rules stay.
QorTierFault QorEndTiers(uint32_t crc);

// The text in force, as UTF-8 with line feeds; the lines in it, and its CRC-32.
std::string_view QorTierText();
int32_t QorTierLineCount();
uint32_t QorTierCrc();

// What the rules say of a method; the class's name is dotted.
uint32_t QorTierKindsOf(const char *className, const char *method);

// The `object` lines of a class, by its JVM signature.
QorTierObjects QorFindTierObjects(const char *signature);

// Whether there is one of these kinds that isn't switched off.
bool QorIsTierObject(const char *signature, uint32_t kinds);

// Whether a thread that is parked may be in a remote call: there are `state rmi` and `frame rmi` lines.
bool QorTiersKnowRemoteCalls();
