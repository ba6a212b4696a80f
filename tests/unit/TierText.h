// Rules of drivers and containers, set as a text.
#pragma once

#include "qortiers.h"

#include <string>
#include <zlib.h>

inline uint32_t CrcOf(const std::string &text) {
    const auto size = static_cast<uInt>(text.size());
    return static_cast<uint32_t>(crc32(0, reinterpret_cast<const Bytef *>(text.data()), size));
}

// Sends it in pieces, with carriage returns as line ends: "", or the line and what is wrong with it.
inline std::string SetTiers(const std::string &text, size_t piece = 5000) {
    std::string sent = text;
    for (char &c : sent)
        c = c == '\n' ? '\r' : c;
    QorBeginTiers();
    for (size_t at = 0; at < sent.size(); at += piece)
        QorAddTiers(sent.substr(at, piece).c_str());
    const QorTierFault fault = QorEndTiers(CrcOf(text));
    return fault.reason ? std::to_string(fault.line) + ": " + fault.reason : "";
}
