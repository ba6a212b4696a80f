// The words of the wire, as the console needs them: what it sends and what it looks for in a reply.
//
// The agent writes these from its own constants. The two lists are kept apart on purpose: the console also
// talks to agents older and newer than itself, so what it accepts is its own decision.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace qorctl {

// Control characters of a reply.
constexpr char FIELD_SEP = 29;      // between two fields of a record
constexpr char RECORD_END = 30;     // ends a record; also follows a section title
constexpr char SECTION_END = 31;    // ends a section
constexpr char DETAIL_START = 28;   // starts a wait-detail block after the state
constexpr char DETAIL_RMI = 27;     // right after DETAIL_START: an RMI block
constexpr char DETAIL_COUNTED = 26; // ends the field count of a database block
constexpr char STATE_MARK = 14;     // before the state at optimisation level 3

constexpr std::string_view NO_VALUE = "^";
constexpr std::string_view NO_LINE_FILE = "Native Method"; // in the file's place when no line is known
constexpr std::string_view NO_LINE_SHOWN = " ";            // the line of such a frame, where a blank is used
constexpr std::string_view CALL_ARROW = "->";

// Section titles.
constexpr std::string_view TITLE_ACTIVE_THREADS = "JVM Active Threads";
constexpr std::string_view TITLE_THREAD_DETAILS = "Thread Info Details";
constexpr std::string_view TITLE_CALL_STACK = "Call Stack";
constexpr std::string_view TITLE_LOCK_WAIT = "Lock On";
constexpr std::string_view TITLE_PARKED = "Parked On";
constexpr std::string_view TITLE_OWNED_LOCKS = "JVM Locks";
constexpr std::string_view TITLE_NO_LOCKS = "No Locks held by Current Thread";
constexpr std::string_view TITLE_LOCK_HOLDER = "Thread Holding Lock";
constexpr std::string_view TITLE_HEAP = "JVM Heap Usage";
constexpr std::string_view TITLE_SPACES = "JVM Memory Usage"; // of a JVM read by address
constexpr std::string_view TITLE_MEMORY = "JVM Heap Memory Usage";
constexpr std::string_view TITLE_MEMORY_OBJECTS = "JVM Heap Number of Objects";
constexpr std::string_view TITLE_COLLECTIONS = "JVM Garbage Collections";
constexpr std::string_view TITLE_COLLECTORS = "JVM Garbage Collectors";
constexpr std::string_view TITLE_CLASSES = "JVM Class Details";
constexpr std::string_view TITLE_CLASSES_AGE = "JVM Class Details Age";
constexpr std::string_view TITLE_LOCALS = "Method Locals";
constexpr std::string_view TITLE_MESSAGE = "Message";
constexpr std::string_view TITLE_OBJECT = "Object Description";
constexpr std::string_view TITLE_NO_FIELDS = "Object Description - No Information available";
constexpr std::string_view TITLE_OBJECT_PARENT = "Parent of the Object above:";
constexpr std::string_view TITLE_COST = "QOR Request Cost";
constexpr std::string_view TITLE_VIRTUAL_THREADS = "JVM Virtual Threads";
constexpr std::string_view TITLE_VIRTUAL_CALLS = "JVM Virtual Thread Calls";
constexpr std::string_view TITLE_TIMING = "Time spent in JVM for processing request";

constexpr std::string_view USER_CALL = "user"; // of the application, by the rules
constexpr std::string_view SYSTEM_CALL = "sys";
constexpr std::string_view SKIPPED_FRAMES = " frames are skipped for storage and performance optimization";
// In the class's place of a call: the method's place then has the name of what a framework works on.
constexpr std::string_view FRAMEWORK_OBJECTS[] = {"View_Object", "Entity_Object", "EL_Exp", "Groovy_Script"};
constexpr std::string_view GC_NAME_TAIL = " GC Count"; // after the name of a collector
constexpr std::string_view HISTOGRAM_WORD = "ClassHistogramOnly";
constexpr std::string_view DUMPED_TO = "Heap details dumped to ";
constexpr std::string_view HISTOGRAM_LATE = "Class histogram still being made";
constexpr std::string_view FORKED_DUMP_LATE = "Heap dump timed out";
constexpr std::string_view FORKED_DUMP_FAILED = "Heap dump failed, ";
constexpr std::string_view HPROF_REFUSED = "Heap not enabled for";
constexpr std::string_view TIMED_OUT = "Request TIMED OUT";
constexpr std::string_view UNKNOWN_SETTING = "NoProcessing: Unkownn argument";
constexpr std::string_view ROWS_END = "Active";           // after the rows of locals and of fields
constexpr std::string_view OBJECT_NAME = "Object Name :"; // before a class in an object's chain
constexpr std::string_view NO_SUCH_THREAD = "This Thread does not exist on the JVM";
constexpr std::string_view NO_SUCH_HOLDER = "Thread holding this lock not found.";
constexpr std::string_view NO_SUCH_HOLDER_HINT = "Check if the object is still locked.";
constexpr std::string_view INVALID_OBJECT = "Invalid Object"; // in the place of a lock's class
constexpr std::string_view NO_SUCH_PORT = "Client Port not found on JVM";
constexpr std::string_view NO_STRING = "Given Oop is Invalid on this JVM.";
constexpr std::string_view ERROR_WORD = "ERROR"; // begins what a request for sessions complains of
constexpr std::string_view USEC_UNIT = " usec";

// Views of locals and objects where the JVM is read by address.
constexpr std::string_view TITLE_FRAME = "Frame";
constexpr std::string_view TITLE_THIS_OBJECT = "This Object", TITLE_THIS_CLASS = "This Class";
constexpr std::string_view TITLE_ARGUMENTS = "Method Arguments";
constexpr std::string_view NO_LOCALS = "No Locals available";
constexpr std::string_view NO_SUCH_FRAME = "This Frame does not exist on JVM";
constexpr std::string_view NO_SUCH_METHOD = "Method not found on JVM";
constexpr std::string_view VIEW_OBJECT = "View Object", VIEW_ARRAY = "View Array Contents";
constexpr std::string_view VIEW_CLASS = "View This Class";
constexpr std::string_view ARRAY_OF = "Array ";           // before an array's elements
constexpr std::string_view ARRAY_DIMENSION = " Array D-"; // after them, once for each dimension
constexpr std::string_view NULL_OBJECT = "Null Oop", NULL_ARRAY = "This Array Object is NULL";
constexpr std::string_view NO_FIELDS_EXIST = "No Fields exist";
constexpr std::string_view NO_FIELD_TABLE = "No Information available for this Object";
constexpr std::string_view STRING_ELEMENT = "String Array Element", TEXT_FOLLOWS = " : ";

// The channel.
constexpr std::string_view END_OF_TRANSMISSION = "|\t|\t\t||";
constexpr std::string_view SHUTDOWN_REQUEST = "SHUTDOWN";
constexpr std::string_view TIERS_ACCEPTED = "Tier rules in force";
constexpr size_t MAX_REQUEST_BYTES = 20480; // a request line, its line feed not counted
constexpr size_t REPLY_LIMIT = 1024000;     // the agent's reply buffer
constexpr size_t STACK_LIMIT = 102400;      // what one thread's stack may take of it
constexpr size_t LONGEST_STACK_ROW = 3200;
constexpr int MAX_THREADS_SAMPLED = 1024;

// Bits of the flag word, the first field of a request.
enum RequestFlag : uint32_t {
    FLAG_WAIT_FOR_GC = 1,  // for a bounded time; a JVM read by address alone looks at it, as at the next
    FLAG_HOLD_THREADS = 8, // that run Java code, for the time that reading their stack takes
    FLAG_DETAILS = 16,
    FLAG_SINGLE_THREAD = 32,
    FLAG_SYSTEM_DATA = 128,
    FLAG_ALL_THREADS = 256,
    FLAG_NOT_A_POLL = 512,
    FLAG_COST = 1024,
    FLAG_COPY = 2048,
    FLAG_NO_COPY = 4096,
    FLAG_NO_LOCALS = 8192,
    FLAG_FIGURES = 16384,
};

// What a memory request asks for.
enum MemoryRequestId : uint32_t {
    MEM_SUMMARY = 128,
    MEM_DUMP = 256,
    MEM_DETAILS = 512,
};

// Bits of the request identifier.
enum RequestId : uint32_t {
    REQ_THREAD_COUNTS = 0x40,
    REQ_MEMORY_ACTIVITY = 0x80,
    REQ_THREAD_SUMMARY = 0x100,
    REQ_THREAD_STACK = 0x200,
    REQ_SHOW_OBJECT = 0x400,
    REQ_LOCK_HOLDER = 0x800,
    REQ_SHOW_LOCALS = 0x1000,
    REQ_ACTIVE_THREADS = 0x2000,
    REQ_PORT_HOLDER = 0x4000,
    REQ_POLL_DETAILS = 0x8000,
    REQ_VIRTUAL_THREADS = 0x10000,
};

} // namespace qorctl
