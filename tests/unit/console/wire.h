// Replies written legibly, and what reading them comes to.
#pragma once

#include "base/failure.h"
#include "base/terminal.h"
#include "wire/decode.h"
#include "wire/protocol.h"

#include <gtest/gtest.h>
#include <initializer_list>
#include <string>
#include <string_view>

// '~' field, ';' record end, '!' section end, '{' start of wait details, '}' end of their count, '&' RMI
// mark,
// '*' the mark in front of a state.
inline std::string Wire(std::string_view legible) {
    constexpr std::string_view SIGNS = "~;!{}&*", CODES = "\x1d\x1e\x1f\x1c\x1a\x1b\x0e";
    std::string text(legible);
    for (char &c : text)
        if (size_t at = SIGNS.find(c); at != SIGNS.npos)
            c = CODES[at];
    return text;
}

inline const std::string TIMING = "Time spent in JVM for processing request;321 usec!";

inline qorctl::ThreadSample Threads(std::string_view legible) {
    const std::string text = Wire(legible);
    return qorctl::DecodeThreads(qorctl::OpenReply(text));
}

inline qorctl::ThreadSample Stack(std::string_view legible) {
    const std::string text = Wire(legible);
    return qorctl::DecodeStack(qorctl::OpenReply(text));
}

inline std::string Row(const std::string &thread, const std::string &state) {
    return "a~t" + thread + "~^~^~^~1-" + thread + "~A->b~A.java~3~" + state + ";";
}

// A sample of rows, timed.
inline qorctl::ThreadSample Rows(const std::string &rows) {
    return Threads("JVM Active Threads;" + rows + "!" + TIMING);
}

// What a call fails with.
template <class Call>
std::string FailureOf(Call call) {
    try {
        call();
    } catch (const qorctl::Failure &failure) {
        return qorctl::FailureText(failure);
    }
    return "no failure";
}

inline void ExpectParts(const std::string &text, std::initializer_list<const char *> parts) {
    for (const char *part : parts)
        EXPECT_NE(text.find(part), text.npos) << part << " in\n" << text;
}

inline const std::string ACTIVE_ROW = "a~http-1~^~^~^~77-23~com.acme.Cart->total~Cart.java~12~Runnable";
inline const std::string DETAILS =
    "Thread Info Details;http-1~^~^~^~77-23~com.acme.Cart->total~Cart.java~12~Lock";
inline const std::string FRAMES =
    "Call Stack"
    ";com.acme.Cart->add~Cart.java~40~23~0~140001~^~^"
    ";com.acme.Cart->total~Cart.java~12~23~1~140002~^~^"
    ";697 frames are skipped for storage and performance optimization~NA~^~23~153~0~^~^"
    ";java.lang.Thread->run~Native Method~^~23~850~140003~^~^";
// What Java adds to a row.
inline const std::string ADDED =
    "~cpu=1203400000 alloc=73400320 blocked=1~file=/tmp/a b=c~application=shop~module=cart"
    "~workmanager=wm~session=s1~stuck=0~hogger=1~peer=10.0.0.1:25~rule=read~own|text~";
