// The marks of the record format: what separates fields, records and sections of a reply.
#pragma once

constexpr char STATE_MARK = 14;       // in front of the state field, at optimisation level 3 only
constexpr char FIELD_COUNT_MARK = 26; // behind the field count of a database detail block
constexpr char RMI_MARK = 27;         // second mark of an RMI detail block
constexpr char WAIT_DETAIL = 28;      // starts a detail block behind the state field
constexpr char FIELD_SEP = 29;
constexpr char RECORD_END = 30; // also follows a section title
constexpr char SECTION_END = 31;

// The placeholder of an empty field. Start-up sets it to "^".
extern char null_str[2];
