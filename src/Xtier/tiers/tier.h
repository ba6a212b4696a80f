// The products that the agent knows by tables: which frames are looked at, which objects are looked for among
// their locals, and what is read of them. The tables are in products.h, a block a product.
//
// The tests return 1 or 0; a null frame or signature gets 0. Worker only.
#pragma once

#include <cstdint>

struct QorFrameRecord;

// What a frame or an object is, as bits. A frame's depend on its class and method alone.
enum QorFrameKind : uint32_t {
    FRAME_RMI = 1U << 0,
    FRAME_WEB = 1U << 1,
    FRAME_VIEW = 1U << 2,
    FRAME_ENTITY = 1U << 3,
    FRAME_PAGE = 1U << 4, // the framework's page engine; it is a web frame as well
    FRAME_GROOVY_LINE = 1U << 5,
    FRAME_EL = 1U << 6,
    FRAME_GROOVY_SCRIPT = 1U << 7,
    FRAME_DATABASE = 1U << 8,
    FRAME_FILE = 1U << 9,
    FRAME_NETWORK = 1U << 10,
    FRAME_APP_SERVER = 1U << 11,
    FRAME_ACTIVE_DATA = 1U << 12,   // the framework's filter for pushed data; a web frame as well
    FRAME_OF_RULES = 1U << 13,      // of any kind, by qortiers.h
    OBJECT_OF_FRAMEWORK = 1U << 14, // ends the search for the object of one frame
    OBJECT_PASSED_OVER = 1U << 15,
};

// How a signature may be spelled, as bits. A JVM writes "Lpackage/Class;" alone.
enum QorSpelling : uint8_t {
    SPELL_SIGNATURE = 1,
    SPELL_BARE = 2,        // package/Class
    SPELL_WITHOUT_L = 4,   // package/Class;
    SPELL_WITHOUT_END = 8, // Lpackage/Class
    SPELL_WHOLE = 16,      // nothing may follow; else a search takes what only begins so
};

// The record that a value is for.
enum QorTierRecord : uint8_t {
    RECORD_WEB,
    RECORD_PAGE,
    RECORD_NAME,
    RECORD_EXPRESSION,
    RECORD_SCRIPT,
    RECORD_CALL_SITE,
    RECORD_DATABASE,
    RECORD_SOCKET,
    RECORD_RMI,
    RECORD_FILE,
    RECORD_SERVER,
};

// What is made of what a way leads to.
enum QorTierForm : uint8_t {
    FORM_TEXT,           // a String or a range of bytes
    FORM_TEXT_TOLD,      // the same; a miss is logged
    FORM_RAW_TEXT,       // a String with its line ends
    FORM_URL,            // a text without its passwords
    FORM_APPENDED,       // a text that follows what is there
    FORM_AFTER_DASH,     // the same, after a "-" where something is there
    FORM_ENVIRONMENT,    // a Hashtable, whose text under REQUEST_URI is taken
    FORM_NUMBER,         // left alone where there is no such field
    FORM_NUMBER_OR_NONE, // -1 where there is no such field
    FORM_CALL_ID,        // of an object its field "id", or else that of the object where the way begins
    FORM_ADDRESS,        // an InetSocketAddress as text, its parts signed
    FORM_DESCRIPTOR,     // a FileDescriptor: its number, and the file's name
    FORM_PATH,           // the name of a file as text, or of a FileDescriptor
    FORM_PORT,           // a number or a text
    FORM_SQL,            // a String that "dbquery" shows
    FORM_SOCKET,         // a java.net.Socket: both its ends
    FORM_PEER,           // a java.net.Socket: host and port of its other end
    FORM_REMOTE_URL,     // a text: host, port, and the whole as the name
    FORM_OBJECT,         // what other ways begin at
    FORM_DIRECT,         // a connection whose session is in an object of its driver
    FORM_LAYERED,        // a connection that holds it itself
};

// A field of a record.
struct QorTierTarget {
    const char *what; // for the documents
    QorTierRecord record;
    uint32_t offset, size;
};

struct QorTableWay {
    const QorTierTarget *target;
    QorTierForm form;
    const char *way;    // ObjectMap.h; "" is the object itself
    const char *method; // only in frames of this method; null for any
};

// Rows of a table, of which there may be none.
template <typename Row>
struct QorRows {
    constexpr QorRows() : first(nullptr), last(nullptr) {}
    template <uint32_t N>
    constexpr QorRows(const Row (&rows)[N]) : first(rows), last(rows + N) {}
    constexpr const Row *begin() const { return first; }
    constexpr const Row *end() const { return last; }
    const Row *first, *last;
};

// What the reader of single frames takes of an object.
enum QorAtOnce : uint8_t { AT_ONCE_NOTHING, AT_ONCE_READ, AT_ONCE_WITH_SQL };

struct QorTableObject {
    const char *name; // with slashes
    uint32_t kinds;   // 0: it is only led to by others
    QorRows<QorTableWay> ways;
    uint8_t searched = SPELL_SIGNATURE, read = SPELL_SIGNATURE;
    QorAtOnce atOnce = AT_ONCE_NOTHING;
};

// A name ending in "*" stands for all that begin so, "*" for any.
struct QorTableFrame {
    uint32_t kinds;
    const char *className, *method;
};

struct QorProduct {
    const char *name;
    QorRows<QorTableFrame> frames;
    QorRows<QorTableObject> objects;
};

// The object of that signature from which something is read; null for none. Any thread.
const QorTableObject *QorFindTableObject(const char *signature);

// The kinds of a frame by the tables, without a line in the log.
uint32_t QorKindsOfFrame(const QorFrameRecord *frame);

// The same, with the lines that the tests below log.
uint32_t QorClassifyByTables(const QorFrameRecord *frame);

// Tests of frames, each for a kind of the tables; not all are called.
int32_t IsRmiCallDataPresent(const QorFrameRecord *frame);
int32_t IsJSPRequestDataPresent(const QorFrameRecord *frame);
int32_t is_vo_frame(const QorFrameRecord *frame);
int32_t is_eo_frame(const QorFrameRecord *frame);
int32_t is_jspx_frame(const QorFrameRecord *frame);
int32_t isGroovyLineDataPresent(const QorFrameRecord *frame);
int32_t isELExpDataPresent(const QorFrameRecord *frame);
int32_t isGroovyScriptDataPresent(const QorFrameRecord *frame);
int32_t IsDBRequestDataPresent(const QorFrameRecord *frame);
int32_t IsIORequestDataPresent(const QorFrameRecord *frame);
int32_t IsNetworkRequestDataPresent(const QorFrameRecord *frame); // no frame is known to be one
int32_t IsAppServerRequestDataPresent(const QorFrameRecord *frame);

// Tests of objects, likewise.
int32_t IsDBFrame(const char *signature);
int32_t IsJSPFrame(const char *signature);
int32_t IsRmiFrame(const char *signature);
int32_t IsIOFrame(const char *signature);
int32_t IsAppServerFrame(const char *signature);
int32_t IsQRFFrame(const char *signature);
int32_t IsQRFJspxFrameObject(const char *signature);
int32_t IsQRFVoFrameObject(const char *signature);
int32_t IsQRFEoFrameObject(const char *signature);
int32_t isQRFGroovyScripFrameObject(const char *signature);
int32_t isQRFGroovyCurrentLineFrameObject(const char *signature);
int32_t isQRFELFrameObject(const char *signature);

// Whether the object is passed over in the search for a frame's object.
bool QorIsPassedOverObject(const char *signature);
// Whether the search for a frame's object ends at this one (any of the object tests but IsQRFFrame).
bool QorIsObjectOfInterest(const char *signature);
