#pragma once

// Reads the message list the library is generated from, so that tests can
// hold the built library against it row by row.

#include <cstdint>
#include <string>
#include <vector>

namespace testing_support {

struct ListedField
{
    std::string name;
    std::string wire; // U08 U16 U32 S16 S32 F32
    bool asBool = false;
    bool oneofBehind = false;
    int width() const;
};

struct ListedRow
{
    uint16_t id = 0;
    std::string enumerator;
    std::string message;
    int bytes = 0;
    std::vector<ListedField> fields;
    int wireSize() const;
    bool isUnion() const;
};

// The rows of the message list, in file order; fails the calling test on a malformed line.
const std::vector<ListedRow> &messageList();
const ListedRow *findListedRow(uint16_t id);

} // namespace testing_support
