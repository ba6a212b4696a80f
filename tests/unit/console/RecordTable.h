// The records' fields as docs/protocol.md has them. Each field has a value that follows from its name and
// place, so that a record that is read in another order shows.
#pragma once

#include <algorithm>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

struct RecordRow {
    std::string name, title;
    std::vector<std::string> fields; // a word in code, or the name of what is there

    static bool IsLiteral(const std::string &field) { return field[0] == '`' || field == "nothing"; }
    static std::string Literal(const std::string &field) {
        return field[0] == '`' ? field.substr(1, field.size() - 2) : "";
    }
    std::string Text(const std::string &field) const {
        const auto place = std::find(fields.begin(), fields.end(), field) - fields.begin();
        const std::string number = std::to_string(101 + place);
        const bool isKey = field == "key" || field == "owner" || field == "group";
        return IsLiteral(field)      ? Literal(field)
               : isKey               ? "77-" + number
               : field == "call"     ? "C" + number + "->m"
               : field == "class@id" ? "L" + number + "@9"
               : field == "count and text"
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
    static const std::regex form(R"(\| (.*) \| (.*) \| (.*) \|)"), comma(", ");
    std::ifstream file(QOR_SOURCE_DIR "/docs/protocol.md");
    std::vector<RecordRow> rows;
    std::string line;
    while (std::getline(file, line) && line != "### Records") {
    }
    for (std::smatch cells; std::getline(file, line) && line.rfind("###", 0) != 0;)
        if (std::regex_match(line, cells, form) && cells[1] != "record") {
            const std::string fields = cells[3];
            rows.push_back({cells[1],
                            RecordRow::Literal(cells[2]),
                            {std::sregex_token_iterator(fields.begin(), fields.end(), comma, -1), {}}});
        }
    return rows;
}
