// Rules of drivers and containers, set as a text.
#pragma once

#include "qortiers.h"

#include <string>

// CRC-32 by its definition: the remainder of a division of polynomials.
inline uint32_t CrcOf(const std::string &text) {
    uint32_t crc = 0xffffffff;
    for (size_t bit = 0; bit < 8 * text.size(); bit++) {
        const bool one = (crc ^ static_cast<unsigned char>(text[bit / 8]) >> bit % 8) & 1;
        crc = one ? crc >> 1 ^ 0xedb88320 : crc >> 1;
    }
    return ~crc;
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
