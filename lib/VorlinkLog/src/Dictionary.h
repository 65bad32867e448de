#pragma once

// The message dictionary as the tool sees it: for every row of the library,
// its names, its schema message type from protobuf's generated pool, and the
// few typed operations the tool needs, reached by id.

#include "RecordOps.h"
#include "ZelkoMsgWireTable.h"

#include <QByteArray>
#include <QtGlobal>

#include <array>
#include <memory>
#include <string>
#include <vector>

namespace google {
namespace protobuf {
class Descriptor;
class FieldDescriptor;
class Message;
} // namespace protobuf
} // namespace google

namespace vorlink {

// One field of a record's wire form, or a schema field that the record does
// not carry (the oneof members of the union messages).
struct WireField
{
    std::string name;
    std::string wireType;       // "U08" ... "F32"; empty for a schema-only field
    int position = -1;          // byte offset on the wire; -1 for a schema-only field
    int width = 0;
    int recordOffset = -1;      // byte offset inside the record (RecordOps' storage); -1 for a schema-only field
    WireType type = WireType::U32;   // meaningful where wireType is set
    const google::protobuf::FieldDescriptor *schemaField = nullptr;
};

struct RowInfo
{
    quint16 id = 0;
    std::string enumerator;     // MSG_ID_...
    std::string protoName;      // zelko.messages.<Message>
    std::string message;        // <Message>
    int payloadSize = 0;        // bytes a message of this id carries on the bus
    int wireSize = 0;           // bytes its record reads and writes
    const google::protobuf::Descriptor *descriptor = nullptr;
    const google::protobuf::Message *prototype = nullptr;
    std::vector<WireField> fields;   // wire fields in wire order, then schema-only fields

    // Typed operations of the row's record.
    bool (*dumpPayload)(const QByteArray &payload) = nullptr;                 // fromQByteArray + dump
    bool (*protoToWire)(const QByteArray &protoBytes, QByteArray &wire) = nullptr;  // deserializeProto + toQByteArray
    // The record's own operations on a record held in plain storage.
    const RecordOps *record = nullptr;
};

class Dictionary
{
public:
    // The one table, built at first use and read-only after.
    static const Dictionary &instance();

    const RowInfo *find(quint16 id) const
    {
        const int i = index_[id];
        return i < 0 ? nullptr : &rows_[std::size_t(i)];
    }
    const std::vector<RowInfo> &rows() const { return rows_; }

    // By enumerator, message name, full schema name or record class name
    // (<Message>Payload), case-insensitive.
    const RowInfo *findByName(const std::string &name) const;

private:
    Dictionary();
    std::vector<RowInfo> rows_;
    std::array<qint16, 65536> index_;
};

} // namespace vorlink
