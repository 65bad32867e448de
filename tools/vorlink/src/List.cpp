// vorlink list: the dictionary, or one message of it, with its fields.

#include "Command.h"
#include "Dictionary.h"
#include "Io.h"

#include <google/protobuf/descriptor.h>

#include <cstdio>

namespace vorlink {
namespace {

const char *schemaTypeName(const google::protobuf::FieldDescriptor *field)
{
    return field->type_name();
}

void printRow(const RowInfo &row, Writer &out)
{
    char line[512];
    std::string size = std::to_string(row.payloadSize) + " bytes";
    if (row.wireSize != row.payloadSize)
        size += " (record reads " + std::to_string(row.wireSize) + ")";
    std::snprintf(line, sizeof line, "0x%04X  %s  %s  %s\n", row.id, row.enumerator.c_str(), row.protoName.c_str(),
                  size.c_str());
    out.append(line);
    if (row.fields.empty())
        out.append("        no fields\n");
    for (const WireField &field : row.fields) {
        if (field.position >= 0) {
            std::snprintf(line, sizeof line, "  %4d  %-3s  %-32s %s\n", field.position, field.wireType.c_str(),
                          field.name.c_str(), schemaTypeName(field.schemaField));
        } else {
            const auto *oneof = field.schemaField->containing_oneof();
            std::snprintf(line, sizeof line, "     -  -    %-32s %s, schema only (oneof %s)\n", field.name.c_str(),
                          schemaTypeName(field.schemaField), oneof != nullptr ? oneof->name().c_str() : "?");
        }
        out.append(line);
    }
}

bool parseIdArgument(std::string text, unsigned &id)
{
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X'))
        text = text.substr(2);
    if (text.empty() || text.size() > 4 || text.find_first_not_of("0123456789abcdefABCDEF") != std::string::npos)
        return false;
    id = unsigned(std::stoul(text, nullptr, 16));
    return true;
}

int runList(const CLI::App &command, const std::string &wanted)
{
    setVerbose(false);
    const Dictionary &dictionary = Dictionary::instance();
    Writer out;
    if (wanted.empty()) {
        for (const RowInfo &row : dictionary.rows())
            printRow(row, out);
        return finishOutput(command, out);
    }
    unsigned id = 0;
    const RowInfo *row = parseIdArgument(wanted, id) ? dictionary.find(quint16(id)) : dictionary.findByName(wanted);
    if (row == nullptr) {
        std::fprintf(stderr, "vorlink list: no message '%s'\n", wanted.c_str());
        return exitRejected;
    }
    printRow(*row, out);
    return finishOutput(command, out);
}

} // namespace

Command addListCommand(CLI::App &parent)
{
    auto wanted = std::make_shared<std::string>();
    CLI::App *command = parent.add_subcommand("list", "show the dictionary: ids, names, sizes and fields");
    command->add_option("MESSAGE", *wanted, "one message, by id (hexadecimal, '0x' optional) or by name "
                                            "(MSG_ID_ enumerator, message name or zelko.messages.<Message>, "
                                            "any case)")
        ->type_name("");
    command->footer(R"(Shows each message's id, enumerator, schema message and payload size, then
every field with its byte position, wire type, name and schema type.

Examples:
  vorlink list
  vorlink list 0x0100
  vorlink list DdTemperatureData)");
    return {command, [command, wanted] { return runList(*command, *wanted); }};
}

} // namespace vorlink
