#include "MessageList.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>

namespace testing_support {

int ListedField::width() const
{
    static const std::map<std::string, int> widths = {{"U08", 1}, {"U16", 2}, {"U32", 4},
                                                      {"S16", 2}, {"S32", 4}, {"F32", 4}};
    return widths.at(wire);
}

int ListedRow::wireSize() const
{
    int size = 0;
    for (const ListedField &f : fields)
        size += f.width();
    return size;
}

bool ListedRow::isUnion() const
{
    for (const ListedField &f : fields)
        if (f.oneofBehind)
            return true;
    return false;
}

namespace {

std::vector<ListedRow> readList()
{
    std::ifstream in(VORLINK_ROWS_FILE);
    EXPECT_TRUE(in.good()) << "cannot open " << VORLINK_ROWS_FILE;
    static const std::regex fieldPattern(R"(^([A-Za-z_]\w*?)(?:(\d+)\.\.(\d+))?:(U08|U16|U32|S16|S32|F32)(=bool)?(\+\w+)?$)");
    std::vector<ListedRow> rows;
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream words(line);
        ListedRow row;
        std::string id, token;
        words >> id >> row.enumerator >> row.message >> row.bytes;
        row.id = uint16_t(std::stoul(id, nullptr, 16));
        while (words >> token) {
            if (token == "-")
                continue;
            std::smatch m;
            if (!std::regex_match(token, m, fieldPattern)) {
                ADD_FAILURE() << "line " << number << ": " << token;
                continue;
            }
            const int first = m[2].matched ? std::stoi(m[2]) : 0;
            const int last = m[2].matched ? std::stoi(m[3]) : 0;
            for (int n = first; n <= last; ++n) {
                ListedField f;
                f.name = m[2].matched ? m[1].str() + std::to_string(n) : m[1].str();
                f.wire = m[4];
                f.asBool = m[5].matched;
                f.oneofBehind = m[6].matched;
                row.fields.push_back(f);
            }
        }
        rows.push_back(row);
    }
    return rows;
}

} // namespace

const std::vector<ListedRow> &messageList()
{
    static const std::vector<ListedRow> rows = readList();
    return rows;
}

const ListedRow *findListedRow(uint16_t id)
{
    for (const ListedRow &r : messageList())
        if (r.id == id)
            return &r;
    return nullptr;
}

} // namespace testing_support
