// vorlink list: the dictionary, or the messages some keys name, with their
// fields.

#include "Command.h"
#include "Dictionary.h"
#include "Io.h"
#include "Selection.h"

#include <google/protobuf/descriptor.h>

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace vorlink {
namespace {

struct ListOptions
{
    std::vector<std::string> keys;
    std::string formatName = "text";
};

// Every line names its message, so that `vorlink list | grep Name` keeps a
// message's fields with it.
void printRow(const RowInfo &row, Writer &out)
{
    char line[512];
    std::string size = std::to_string(row.payloadSize) + " bytes";
    if (row.wireSize != row.payloadSize)
        size += " (record reads " + std::to_string(row.wireSize) + ")";
    std::snprintf(line, sizeof line, "0x%04X  %s  %s  %s\n", row.id, row.enumerator.c_str(), row.protoName.c_str(),
                  size.c_str());
    out.append(line);
    if (row.fields.empty()) {
        std::snprintf(line, sizeof line, "     -  -    %s: no fields\n", row.message.c_str());
        out.append(line);
    }
    for (const WireField &field : row.fields) {
        const std::string name = row.message + "." + field.name;
        const char *schemaType = field.schemaField->type_name();
        if (field.position >= 0) {
            std::snprintf(line, sizeof line, "  %4d  %-3s  %-56s %s\n", field.position, field.wireType.c_str(),
                          name.c_str(), schemaType);
        } else {
            const auto *oneof = field.schemaField->containing_oneof();
            std::snprintf(line, sizeof line, "     -  -    %-56s %s, schema only (oneof %s)\n", name.c_str(),
                          schemaType, oneof != nullptr ? oneof->name().c_str() : "?");
        }
        out.append(line);
    }
}

QJsonObject rowJson(const RowInfo &row)
{
    QJsonArray fields;
    for (const WireField &field : row.fields) {
        QJsonObject item{{"name", QString::fromStdString(field.name)},
                         {"schemaType", field.schemaField->type_name()}};
        if (field.position >= 0) {
            item.insert("position", field.position);
            item.insert("wireType", QString::fromStdString(field.wireType));
            item.insert("width", field.width);
        } else if (const auto *oneof = field.schemaField->containing_oneof()) {
            item.insert("oneof", QString::fromStdString(oneof->name()));
        }
        fields.append(item);
    }
    return {{"id", QString::fromStdString(hexId(row.id))},
            {"msgId", row.id},
            {"message", QString::fromStdString(row.message)},
            {"enumerator", QString::fromStdString(row.enumerator)},
            {"schema", QString::fromStdString(row.protoName)},
            {"payloadSize", row.payloadSize},
            {"wireSize", row.wireSize},
            {"fields", fields}};
}

int runList(const CLI::App &command, const ListOptions &options)
{
    setVerbose(false);
    std::string error;
    bool json = false;
    if (!choose<bool>("--format", options.formatName, {{"text", false}, {"json", true}}, json, error))
        return misuse(command, error);
    // The rows the keys name, each once, in id order.
    std::vector<const RowInfo *> rows;
    if (options.keys.empty()) {
        for (const RowInfo &row : Dictionary::instance().rows())
            rows.push_back(&row);
    } else {
        Selection selection;
        for (const std::string &key : options.keys)
            if (!selection.addMessage(key, error))
                return misuse(command, error);
        rows = selection.rows();
    }
    Writer out;
    if (json) {
        QJsonArray all;
        for (const RowInfo *row : rows)
            all.append(rowJson(*row));
        const QByteArray text = QJsonDocument(all).toJson(QJsonDocument::Indented);
        out.append(text.constData(), std::size_t(text.size()));
    } else {
        for (const RowInfo *row : rows)
            printRow(*row, out);
    }
    return finishOutput(command, out);
}

} // namespace

Command addListCommand(CLI::App &parent)
{
    auto options = std::make_shared<ListOptions>();
    CLI::App *command = parent.add_subcommand("list", "show the dictionary: ids, names, sizes and fields");
    command->add_option("MESSAGE", options->keys, "messages to show, each as --message takes it: an id (0x2600 or "
                                                  "9728), a message name in any of its forms, or a node prefix "
                                                  "(Td, Dd, Fp, Ui); all when none is given")
        ->type_name("");
    command->add_option("--format", options->formatName, "text (default) or json")->type_name("FORMAT");
    command->footer(R"(Shows each message's id, enumerator, schema message and payload size, then
every field with its byte position, wire type, Message.field and schema type.

Examples:
  vorlink list
  vorlink list 0x0100 DdTemperatureData
  vorlink list Td | grep U08
  vorlink list --format json Dd | jq '.[].message')");
    return {command, [command, options] { return runList(*command, *options); }};
}

} // namespace vorlink
