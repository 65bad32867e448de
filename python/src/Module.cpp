// The extension vorlink._vorlink: the dictionary's table for vorlink.messages(),
// the registry of record classes, and the parts added by the other files.

#include "Module.h"

#include "Dictionary.h"
#include "WireRange.h"

#include "ZelkoMsgDefs.h"
#include "ZelkoMsgProtoUtils.h"

#include <cctype>
#include <string>

namespace vorlink {
namespace python {
namespace {

const char *schemaTypeName(SchemaType type)
{
    switch (type) {
    case SchemaType::Uint32: return "uint32";
    case SchemaType::Int32: return "int32";
    case SchemaType::Float: return "float";
    case SchemaType::Bool: return "bool";
    }
    return "?";
}

std::string lower(std::string text)
{
    for (char &c : text)
        c = char(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

// Every row as (id, enumerator, message, proto_name, payload_size, wire_size,
// fields), each field (name, wire_type, offset, size, schema_type). Names and
// sizes come from the library's own tables, the layout from the wire table.
py::list table()
{
    py::list rows;
    for (std::size_t i = 0; i < wireRowCount; ++i) {
        const WireRowEntry &row = wireRows[i];
        py::list fields;
        for (std::size_t k = row.firstField; k < std::size_t(row.firstField) + row.fieldCount; ++k) {
            const WireFieldEntry &f = wireFields[k];
            // Interned, as the record's names are: keywords built from these
            // names are found by identity.
            fields.append(py::make_tuple(py::reinterpret_steal<py::object>(PyUnicode_InternFromString(f.name)),
                                         wireTypeName(f.wire), int(f.offset), int(f.width),
                                         schemaTypeName(f.schema)));
        }
        const zelko::MsgId id = zelko::MsgId(row.id);
        rows.append(py::make_tuple(int(row.id), zelko::msgIdString(id).toStdString(), row.message,
                                   zelko::msgIdToProtoName(row.id), int(zelko::payloadSize.value(id, -1)),
                                   int(row.wireSize), py::tuple(fields)));
    }
    return rows;
}

// Ties the record classes (one per row, in table order) to their rows and
// returns the dict of keys, which vorlink._resolve adds to.
py::dict registerRows(py::list classes, py::object resolve, py::object nearest, py::object payloadTooShort)
{
    Registry &r = registry();
    if (r.ready)
        throw std::runtime_error("vorlink._vorlink: the rows are registered already");
    if (classes.size() != wireRowCount)
        throw std::invalid_argument("one record class per row is needed");
    py::dict keys;
    for (std::size_t i = 0; i < wireRowCount; ++i) {
        const WireRowEntry &row = wireRows[i];
        py::object cls = classes[i];
        if (!PyType_Check(cls.ptr()) || !PyType_IsSubtype(reinterpret_cast<PyTypeObject *>(cls.ptr()), &PyTuple_Type))
            throw std::invalid_argument("a record class is a tuple subclass");
        py::int_ index(i);
        for (const std::string &name : {std::string(row.message), std::string(row.enumerator),
                                        zelko::msgIdToProtoName(row.id)}) {
            keys[py::str(name)] = index;
            keys[py::str(lower(name))] = index;
        }
        keys[cls] = index;
        py::dict fields;
        py::tuple names(row.fieldCount);
        for (std::size_t k = 0; k < row.fieldCount; ++k) {
            py::object name = py::reinterpret_steal<py::object>(PyUnicode_InternFromString(wireFields[row.firstField + k].name));
            fields[name] = py::int_(k);
            names[k] = name;
        }
        r.fieldNames.push_back(names.release().ptr());
        r.recordClasses.push_back(cls.release().ptr());
        r.fieldIndex.push_back(fields.release().ptr());
    }
    r.keys = py::object(keys).inc_ref().ptr();
    r.resolve = resolve.release().ptr();
    r.nearest = nearest.release().ptr();
    r.payloadTooShort = payloadTooShort.release().ptr();
    r.unreadName = PyUnicode_InternFromString("unread");
    r.fillName = PyUnicode_InternFromString("fill");
    r.ready = true;
    return keys;
}

} // namespace

Registry &registry()
{
    static Registry r;
    return r;
}

int findRow(PyObject *key)
{
    Registry &r = registry();
    if (PyLong_CheckExact(key)) {
        int overflow = 0;
        const long id = PyLong_AsLongAndOverflow(key, &overflow);
        if (overflow == 0 && id >= 0 && id <= 0xFFFF) {
            const int row = rowOfId(std::uint16_t(id));
            if (row >= 0)
                return row;
        }
    } else if (PyUnicode_CheckExact(key) || PyType_Check(key)) {
        PyObject *row = PyDict_GetItemWithError(r.keys, key);
        if (row != nullptr)
            return int(PyLong_AsLong(row));
        if (PyErr_Occurred())
            return -1;
    }
    PyObject *row = PyObject_CallOneArg(r.resolve, key);
    if (row == nullptr)
        return -1;
    const long index = PyLong_AsLong(row);
    Py_DECREF(row);
    if (index < 0 || std::size_t(index) >= wireRowCount) {
        if (!PyErr_Occurred())
            PyErr_SetString(PyExc_SystemError, "vorlink._resolve gave no row");
        return -1;
    }
    return int(index);
}

void addDictionary(py::module_ &m)
{
    m.def("_table", &table, "Every row of the dictionary, in id order.");
    m.def("_register", &registerRows, "Ties the record classes to their rows.");
    m.def(
        "_find",
        [](py::handle key) {
            const int row = findRow(key.ptr());
            if (row < 0)
                throw py::error_already_set();
            return row;
        },
        "The index of the row of `key`.");
}

} // namespace python
} // namespace vorlink

PYBIND11_MODULE(_vorlink, m)
{
    m.doc() = "The Vorlink library's dictionary, records and protobuf bridge (use the package vorlink).";
    vorlink::python::addDictionary(m);
    vorlink::python::addRecords(m);
    vorlink::python::addLogging(m);
    vorlink::python::addLogs(m);
}
