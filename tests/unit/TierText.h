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

// As JNI has a text: a character of four bytes is two surrogates of three each. Only planes up to U+1FFFF.
inline std::string Modified(std::string text) {
    for (size_t at; (at = text.find('\xf0')) != std::string::npos;) {
        const auto byte = [&](size_t i) { return static_cast<unsigned>(text[at + i]) & 0x3f; };
        const unsigned below = byte(1) << 12 | byte(2) << 6 | byte(3), above = below - 0x10000;
        const std::string pair = {'\xed',
                                  static_cast<char>(0xa0 | above >> 16),
                                  static_cast<char>(0x80 | (above >> 10 & 0x3f)),
                                  '\xed',
                                  static_cast<char>(0xb0 | (above >> 6 & 0xf)),
                                  static_cast<char>(0x80 | (above & 0x3f))};
        text.replace(at, 4, pair);
    }
    return text;
}

// Sends it in pieces, with carriage returns as line ends: "", or the line and what is wrong with it.
inline std::string SetTiers(const std::string &text, size_t piece = 5000) {
    std::string sent = Modified(text);
    for (char &c : sent)
        c = c == '\n' ? '\r' : c;
    QorBeginTiers();
    for (size_t at = 0; at < sent.size(); at += piece)
        QorAddTiers(sent.substr(at, piece).c_str());
    const QorTierFault fault = QorEndTiers(CrcOf(text));
    return fault.reason ? std::to_string(fault.line) + ": " + fault.reason : "";
}
