// The records' fields as docs/protocol.md has them. Each field has a value that follows from its name and
// place, so that a record that is written, or read, in another order shows.
#pragma once

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

struct RecordRow {
    std::string name, title;
    std::vector<std::string> fields; // a word in code, or the name of what is there

    static bool IsLiteral(const std::string &field) { return field[0] == '`' || field == "nothing"; }
    static std::string Literal(const std::string &field) {
        return field[0] == '`' ? field.substr(1, field.size() - 2) : "";
    }
    int Number(const std::string &field) const {
        return 101 + static_cast<int>(std::find(fields.begin(), fields.end(), field) - fields.begin());
    }
    std::string Text(const std::string &field) const {
        if (IsLiteral(field))
            return Literal(field);
        const std::string number = std::to_string(Number(field));
        if (field == "key" || field == "owner")
            return "77-" + number;
        if (field == "call")
            return "C" + number + "->m";
        if (field == "class@id")
            return "L" + number + "@9";
        return field == "count and text"
                   ? number + " frames are skipped for storage and performance optimization"
                   : number;
    }
    // The record itself.
    std::string Wire() const {
        std::string wire;
        for (const std::string &field : fields)
            wire += Text(field) + '\x1d';
        wire.pop_back();
        return wire;
    }
};

inline std::vector<RecordRow> ReadRecordTable() {
    const auto cut = [](const std::string &text, const std::string &separator) {
        std::vector<std::string> pieces;
        size_t start = 0;
        for (size_t end; (end = text.find(separator, start)) != text.npos; start = end + separator.size())
            pieces.push_back(text.substr(start, end - start));
        pieces.push_back(text.substr(start));
        return pieces;
    };
    std::ifstream file(QOR_SOURCE_DIR "/docs/protocol.md");
    std::vector<RecordRow> rows;
    std::string line;
    while (std::getline(file, line) && line != "### Records") {
    }
    while (std::getline(file, line) && line.rfind("###", 0) != 0) {
        const std::vector<std::string> cells = cut(line, " | ");
        if (cells.size() != 3 || cells[0] == "| record" || line[0] != '|')
            continue;
        const std::string fields = cells[2].substr(0, cells[2].size() - 2);
        rows.push_back({cells[0].substr(2), RecordRow::Literal(cells[1]), cut(fields, ", ")});
    }
    return rows;
}
