#include "Dictionary.h"

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"
#include "ZelkoMsgRowList.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <cstring>
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

// Finds where a record keeps each wire field by setting that one field in the
// schema message, bringing it into the record and looking at which bytes the
// record writes: a value with every byte non-zero marks the field's bytes.
void probeLayout(RowInfo &row)
{
    QByteArray wire;
    row.protoToWire(QByteArray(), wire);
    row.wireSize = wire.size();

    std::unique_ptr<Message> message(row.prototype->New());
    const auto *reflection = message->GetReflection();
    std::vector<WireField> schemaOnly;
    for (int i = 0; i < row.descriptor->field_count(); ++i) {
        const FieldDescriptor *f = row.descriptor->field(i);
        if (f->number() == 1)   // header
            continue;
        WireField field;
        field.name = f->name();
        field.schemaField = f;
        if (f->containing_oneof() != nullptr) {
            schemaOnly.push_back(std::move(field));
            continue;
        }
        message->Clear();
        switch (f->cpp_type()) {
        case FieldDescriptor::CPPTYPE_UINT32: reflection->SetUInt32(message.get(), f, 0xFFFFFFFFu); break;
        case FieldDescriptor::CPPTYPE_INT32: reflection->SetInt32(message.get(), f, -1); break;
        case FieldDescriptor::CPPTYPE_BOOL: reflection->SetBool(message.get(), f, true); break;
        case FieldDescriptor::CPPTYPE_FLOAT: {
            const quint32 bits = 0x7F7F7F7Fu;   // finite, no zero byte
            float value;
            std::memcpy(&value, &bits, sizeof value);
            reflection->SetFloat(message.get(), f, value);
            break;
        }
        default: break;
        }
        const std::string bytes = message->SerializeAsString();
        row.protoToWire(QByteArray(bytes.data(), int(bytes.size())), wire);
        int first = -1, last = -1;
        for (int k = 0; k < wire.size(); ++k) {
            if (wire.at(k) != char(0)) {
                if (first < 0)
                    first = k;
                last = k;
            }
        }
        field.position = first;
        field.width = first < 0 ? 0 : last - first + 1;
        row.fields.push_back(std::move(field));
    }
    std::stable_sort(row.fields.begin(), row.fields.end(),
                     [](const WireField &a, const WireField &b) { return a.position < b.position; });
    // A bool shows only its low byte: it reaches to the next field.
    for (std::size_t k = 0; k < row.fields.size(); ++k) {
        WireField &field = row.fields[k];
        if (field.schemaField->cpp_type() == FieldDescriptor::CPPTYPE_BOOL && field.position >= 0)
            field.width = (k + 1 < row.fields.size() ? row.fields[k + 1].position : row.wireSize) - field.position;
        const auto type = field.schemaField->cpp_type();
        switch (field.width) {
        case 1: field.wireType = "U08"; break;
        case 2: field.wireType = type == FieldDescriptor::CPPTYPE_INT32 ? "S16" : "U16"; break;
        case 4:
            field.wireType = type == FieldDescriptor::CPPTYPE_FLOAT   ? "F32"
                             : type == FieldDescriptor::CPPTYPE_INT32 ? "S32"
                                                                      : "U32";
            break;
        default: field.wireType = "?"; break;
        }
    }
    for (auto &field : schemaOnly)
        row.fields.push_back(std::move(field));
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
    index_.fill(-1);
    // The probes go through the union messages' bridge, which writes a note on
    // every call. Those notes would speak of no message of any input: drop them.
    const QtMessageHandler previous = qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const std::string prefix = "zelko.messages.";
    for (std::size_t i = 0; i < rows_.size(); ++i) {
        RowInfo &row = rows_[i];
        index_[row.id] = qint16(i);
        row.enumerator = zelko::msgIdString(zelko::MsgId(row.id)).toStdString();
        row.protoName = zelko::msgIdToProtoName(row.id);
        row.message = row.protoName.compare(0, prefix.size(), prefix) == 0 ? row.protoName.substr(prefix.size())
                                                                          : row.protoName;
        row.payloadSize = int(zelko::payloadSize.value(zelko::MsgId(row.id), -1));
        row.descriptor = DescriptorPool::generated_pool()->FindMessageTypeByName(row.protoName);
        if (row.descriptor != nullptr) {
            row.prototype = MessageFactory::generated_factory()->GetPrototype(row.descriptor);
            probeLayout(row);
        }
    }
    qInstallMessageHandler(previous);
}

const RowInfo *Dictionary::findByName(const std::string &name) const
{
    const std::string wanted = lower(name);
    for (const RowInfo &row : rows_)
        if (wanted == lower(row.enumerator) || wanted == lower(row.message) || wanted == lower(row.protoName))
            return &row;
    return nullptr;
}

} // namespace vorlink
