#include "Dictionary.h"

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"
#include "ZelkoMsgWireTable.h"
#include "WireRange.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <tuple>

namespace vorlink {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::MessageFactory;

template <class Record>
bool dumpPayload(const QByteArray &payload)
{
    Record record;
    if (!record.fromQByteArray(payload))
        return false;
    record.dump();
    return true;
}

template <class Record>
bool protoToWire(const QByteArray &protoBytes, QByteArray &wire)
{
    Record record;
    if (!zelko::deserializeProto(protoBytes, record))
        return false;
    // Emptied without giving back its memory: the caller reuses it line after line.
    wire.reserve(std::max(wire.capacity(), 64));
    wire.resize(0);
    record.toQByteArray(wire);
    return true;
}

template <class Row>
RowInfo makeRow()
{
    using Record = typename Row::Payload;
    RowInfo row;
    row.id = quint16(Row::id);
    row.dumpPayload = &dumpPayload<Record>;
    row.protoToWire = &protoToWire<Record>;
    return row;
}

template <class... Rows>
std::vector<RowInfo> makeRows(std::tuple<Rows...> *)
{
    return {makeRow<Rows>()...};
}

// The record's wire fields from the generated table, then the schema fields
// that the record does not carry (the oneof members of the union messages).
void addFields(RowInfo &row, const WireRowEntry &entry)
{
    row.wireSize = entry.wireSize;
    for (std::size_t k = entry.firstField; k < std::size_t(entry.firstField + entry.fieldCount); ++k) {
        const WireFieldEntry &f = wireFields[k];
        WireField field;
        field.name = f.name;
        field.wireType = wireTypeName(f.wire);
        field.type = f.wire;
        field.position = f.offset;
        field.width = f.width;
        field.recordOffset = int(recordOffset(k));
        field.schemaField = row.descriptor->FindFieldByName(f.name);
        row.fields.push_back(std::move(field));
    }
    for (int i = 0; i < row.descriptor->field_count(); ++i) {
        const FieldDescriptor *f = row.descriptor->field(i);
        if (f->containing_oneof() == nullptr)
            continue;
        WireField field;
        field.name = f->name();
        field.schemaField = f;
        row.fields.push_back(std::move(field));
    }
}

std::string lower(std::string text)
{
    for (char &c : text)
        if (c >= 'A' && c <= 'Z')
            c = char(c - 'A' + 'a');
    return text;
}

} // namespace

const Dictionary &Dictionary::instance()
{
    static const Dictionary dictionary;
    return dictionary;
}

Dictionary::Dictionary()
    : rows_(makeRows(static_cast<zelko::AllRows *>(nullptr)))
{
    static_assert(std::tuple_size<zelko::AllRows>::value == wireRowCount, "one table row per record");
    index_.fill(-1);
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        RowInfo &row = rows_[i];
        const WireRowEntry &entry = wireRows[i];
        Q_ASSERT(entry.id == row.id);
        index_[row.id] = qint16(i);
        row.enumerator = entry.enumerator;
        row.message = entry.message;
        row.protoName = zelko::msgIdToProtoName(row.id);
        row.payloadSize = entry.payloadSize;
        row.record = &recordOps(i);
        row.descriptor = DescriptorPool::generated_pool()->FindMessageTypeByName(row.protoName);
        if (row.descriptor != nullptr) {
            row.prototype = MessageFactory::generated_factory()->GetPrototype(row.descriptor);
            addFields(row, entry);
        }
    }
}

const RowInfo *Dictionary::findByName(const std::string &name) const
{
    const std::string wanted = lower(name);
    for (const RowInfo &row : rows_)
        if (wanted == lower(row.enumerator) || wanted == lower(row.message) || wanted == lower(row.protoName) ||
            wanted == lower(row.message + "Payload"))
            return &row;
    return nullptr;
}

} // namespace vorlink
