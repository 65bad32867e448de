// Records: decode, encode, dump and the protobuf bridge of one row's record,
// called straight through the CPython API (no per-call pybind11 layer) since
// these are the calls a script makes per message.

#include "Module.h"

#include "Dictionary.h"
#include "WireRange.h"

#include "ZelkoMsgDefs.pb.h"
#include "ZelkoMsgProtoUtils.h"

#include "Bytra/Can.h"

#include <QByteArray>
#include <QDateTime>

#include <climits>
#include <cstdio>
#include <cmath>
#include <cstring>
#include <limits>

namespace vorlink {
namespace python {
namespace {

// A payload or protobuf argument: bytes, bytearray, memoryview or any other
// contiguous buffer.
class Bytes
{
public:
    explicit Bytes(PyObject *object)
    {
        if (PyBytes_CheckExact(object)) {
            data_ = PyBytes_AS_STRING(object);
            size_ = PyBytes_GET_SIZE(object);
        } else if (PyObject_GetBuffer(object, &view_, PyBUF_SIMPLE) == 0) {
            held_ = true;
            data_ = static_cast<const char *>(view_.buf);
            size_ = view_.len;
        } else {
            return;
        }
        if (size_ > INT_MAX) {
            PyErr_Format(PyExc_ValueError, "%zd bytes are more than a message can hold", size_);
            return;
        }
        ok_ = true;
    }
    ~Bytes()
    {
        if (held_)
            PyBuffer_Release(&view_);
    }
    Bytes(const Bytes &) = delete;
    Bytes &operator=(const Bytes &) = delete;

    bool ok() const { return ok_; }
    const char *data() const { return data_; }
    int size() const { return int(size_); }

    // The bytes as a QByteArray that does not copy them; valid until the next
    // call on this thread.
    const QByteArray &raw() const
    {
        static thread_local QByteArray array;
        array.setRawData(data_, uint(size_));
        return array;
    }

private:
    Py_buffer view_{};
    const char *data_ = nullptr;
    Py_ssize_t size_ = 0;
    bool held_ = false;
    bool ok_ = false;
};

// The shared dictionary's row: its record's operations and where its fields sit.
const RowInfo &rowInfo(int row)
{
    static const std::vector<RowInfo> &rows = Dictionary::instance().rows();
    return rows[std::size_t(row)];
}

const WireFieldEntry &fieldOf(int row, std::size_t k) { return wireFields[wireRows[row].firstField + k]; }

unsigned char *placeOf(int row, std::size_t k, void *storage)
{
    return static_cast<unsigned char *>(storage) + rowInfo(row).fields[k].recordOffset;
}

PyObject *valueOf(WireType type, const unsigned char *at)
{
    switch (type) {
    case WireType::U08: return PyLong_FromLong(*at);
    case WireType::U16: { quint16 v; std::memcpy(&v, at, sizeof v); return PyLong_FromLong(v); }
    case WireType::U32: { quint32 v; std::memcpy(&v, at, sizeof v); return PyLong_FromUnsignedLong(v); }
    case WireType::S16: { qint16 v; std::memcpy(&v, at, sizeof v); return PyLong_FromLong(v); }
    case WireType::S32: { qint32 v; std::memcpy(&v, at, sizeof v); return PyLong_FromLong(v); }
    case WireType::F32: { float v; std::memcpy(&v, at, sizeof v); return PyFloat_FromDouble(double(v)); }
    }
    return nullptr;
}

// The record object of a filled record: an instance of the row's class with
// the field values in wire order, and the payload's bytes behind the record
// in `unread` when there are any.
PyObject *makeRecord(int row, const void *storage, const char *unread, Py_ssize_t unreadSize)
{
    Registry &r = registry();
    auto *cls = reinterpret_cast<PyTypeObject *>(r.recordClasses[std::size_t(row)]);
    const std::size_t count = wireRows[row].fieldCount;
    PyObject *record = cls->tp_alloc(cls, Py_ssize_t(count));
    if (record == nullptr)
        return nullptr;
    const unsigned char *base = static_cast<const unsigned char *>(storage);
    const std::vector<WireField> &fields = rowInfo(row).fields;
    for (std::size_t k = 0; k < count; ++k) {
        PyObject *value = valueOf(fields[k].type, base + fields[k].recordOffset);
        if (value == nullptr) {
            Py_DECREF(record);
            return nullptr;
        }
        PyTuple_SET_ITEM(record, Py_ssize_t(k), value);
    }
    if (unreadSize > 0) {
        PyObject *bytes = PyBytes_FromStringAndSize(unread, unreadSize);
        if (bytes == nullptr || PyObject_GenericSetAttr(record, r.unreadName, bytes) < 0) {
            Py_XDECREF(bytes);
            Py_DECREF(record);
            return nullptr;
        }
        Py_DECREF(bytes);
    }
    return record;
}

// --- encoding: a Python value into a record field, refusing what the wire cannot hold

// "U08 takes 0 to 255" and the like, for the messages below.
std::string takes(const WireFieldEntry &f)
{
    if (f.wire == WireType::F32)
        return "F32 takes a number from -3.4028234663852886e+38 to 3.4028234663852886e+38, inf or nan";
    const WireRange range = wireRange(f.wire);
    std::string text = std::string(wireTypeName(f.wire)) + " takes ";
    if (f.schema == SchemaType::Bool)
        text = "U32 held as bool takes False, True or ";
    return text + std::to_string(range.min) + " to " + std::to_string(range.max);
}

int refuse(int row, const WireFieldEntry &f, PyObject *value, const char *what)
{
    PyObject *repr = PyObject_Repr(value);
    if (repr == nullptr)
        return -1;
    PyErr_Format(PyExc_ValueError, "%s.%s: %U %s; %s", wireRows[row].message, f.name, repr, what, takes(f).c_str());
    Py_DECREF(repr);
    return -1;
}

int refuseType(int row, const WireFieldEntry &f, PyObject *value)
{
    PyObject *repr = PyObject_Repr(value);
    if (repr == nullptr)
        return -1;
    PyErr_Format(PyExc_ValueError, "%s.%s: %U (%s) is not a number; %s", wireRows[row].message, f.name, repr,
                 Py_TYPE(value)->tp_name, takes(f).c_str());
    Py_DECREF(repr);
    return -1;
}

int putFloat(int row, const WireFieldEntry &f, PyObject *value, unsigned char *at)
{
    double d;
    if (PyFloat_Check(value)) {
        d = PyFloat_AS_DOUBLE(value);
    } else if (PyBool_Check(value)) {
        return refuse(row, f, value, "is a bool, not a number");
    } else if (PyLong_Check(value) || PyIndex_Check(value) ||
               (Py_TYPE(value)->tp_as_number != nullptr && Py_TYPE(value)->tp_as_number->nb_float != nullptr)) {
        d = PyFloat_AsDouble(value);
        if (d == -1.0 && PyErr_Occurred()) {
            if (!PyErr_ExceptionMatches(PyExc_OverflowError))
                return -1;
            PyErr_Clear();
            return refuse(row, f, value, "is outside the range");
        }
    } else {
        return refuseType(row, f, value);
    }
    const float single = float(d);
    if (std::isinf(single) && !std::isinf(d))
        return refuse(row, f, value, "is outside the range");
    std::memcpy(at, &single, sizeof single);
    return 0;
}

int putInteger(int row, const WireFieldEntry &f, PyObject *value, unsigned char *at)
{
    long long n;
    if (PyBool_Check(value)) {
        if (f.schema != SchemaType::Bool)
            return refuse(row, f, value, "is a bool, and this field is a number");
        n = value == Py_True ? 1 : 0;
    } else if (PyLong_CheckExact(value)) {
        int overflow = 0;
        n = PyLong_AsLongLongAndOverflow(value, &overflow);
        if (overflow != 0)
            return refuse(row, f, value, "is outside the range");
    } else if (PyLong_Check(value) || (!PyFloat_Check(value) && PyIndex_Check(value))) {
        PyObject *index = PyNumber_Index(value);
        if (index == nullptr)
            return -1;
        int overflow = 0;
        n = PyLong_AsLongLongAndOverflow(index, &overflow);
        Py_DECREF(index);
        if (overflow != 0)
            return refuse(row, f, value, "is outside the range");
        if (n == -1 && PyErr_Occurred())
            return -1;
    } else if (PyFloat_Check(value)) {
        const double d = PyFloat_AS_DOUBLE(value);
        if (!std::isfinite(d) || d != std::floor(d))
            return refuse(row, f, value, "is not a whole number");
        if (d < -9.0e18 || d > 9.0e18)
            return refuse(row, f, value, "is outside the range");
        n = static_cast<long long>(d);
    } else {
        return refuseType(row, f, value);
    }
    if (!fitsWire(f.wire, n))
        return refuse(row, f, value, "is outside the range");
    switch (f.wire) {
    case WireType::U08: *at = quint8(n); break;
    case WireType::U16: { const quint16 v = quint16(n); std::memcpy(at, &v, sizeof v); break; }
    case WireType::U32: { const quint32 v = quint32(n); std::memcpy(at, &v, sizeof v); break; }
    case WireType::S16: { const qint16 v = qint16(n); std::memcpy(at, &v, sizeof v); break; }
    case WireType::S32: { const qint32 v = qint32(n); std::memcpy(at, &v, sizeof v); break; }
    case WireType::F32: break;
    }
    return 0;
}

int putField(int row, std::size_t k, PyObject *value, void *storage)
{
    const WireFieldEntry &f = fieldOf(row, k);
    unsigned char *at = placeOf(row, k, storage);
    return f.wire == WireType::F32 ? putFloat(row, f, value, at) : putInteger(row, f, value, at);
}

constexpr std::size_t maxFields = [] {
    std::size_t most = 0;
    for (const WireRowEntry &row : wireRows)
        most = row.fieldCount > most ? row.fieldCount : most;
    return most;
}();

PyObject *nearestNames(int row, PyObject *word)
{
    PyObject *names = PyDict_Keys(registry().fieldIndex[std::size_t(row)]);
    if (names == nullptr)
        return nullptr;
    PyObject *text = PyObject_CallFunctionObjArgs(registry().nearest, word, names, nullptr);
    Py_DECREF(names);
    return text;
}

int unknownField(int row, PyObject *name)
{
    PyObject *nearest = nearestNames(row, name);
    if (nearest == nullptr)
        return -1;
    PyErr_Format(PyExc_ValueError, "%s has no field %R; the nearest are %U", wireRows[row].message, name, nearest);
    Py_DECREF(nearest);
    return -1;
}

// The values for one record, by field index, from a record, a sequence, a
// mapping and keywords; then checked and written into a fresh record.
class Values
{
public:
    explicit Values(int row)
        : row_(row)
        , count_(wireRows[row].fieldCount)
    {
    }
    ~Values() { Py_XDECREF(held_); }
    Values(const Values &) = delete;
    Values &operator=(const Values &) = delete;

    // A keyword is mostly the interned name of its field, in wire order:
    // found by identity, at its place or in the names; else by the dict.
    int setKeyword(Py_ssize_t position, PyObject *name, PyObject *value)
    {
        PyObject *names = registry().fieldNames[std::size_t(row_)];
        if (std::size_t(position) < count_ && PyTuple_GET_ITEM(names, position) == name &&
            slots_[position] == nullptr) {
            slots_[position] = value;
            return 0;
        }
        for (std::size_t k = 0; k < count_; ++k) {
            if (PyTuple_GET_ITEM(names, Py_ssize_t(k)) == name && slots_[k] == nullptr) {
                slots_[k] = value;
                return 0;
            }
        }
        return set(name, value);
    }

    int set(PyObject *name, PyObject *value)
    {
        if (!PyUnicode_Check(name)) {
            PyErr_Format(PyExc_ValueError, "%s: field names are strings, not %R", wireRows[row_].message, name);
            return -1;
        }
        PyObject *index = PyDict_GetItemWithError(registry().fieldIndex[std::size_t(row_)], name);
        if (index == nullptr) {
            if (PyErr_Occurred())
                return -1;
            return unknownField(row_, name);
        }
        const std::size_t k = std::size_t(PyLong_AsSsize_t(index));
        if (slots_[k] != nullptr) {
            PyErr_Format(PyExc_ValueError, "%s.%U is given twice", wireRows[row_].message, name);
            return -1;
        }
        slots_[k] = value;
        return 0;
    }

    int setAll(PyObject *values)
    {
        PyObject *cls = registry().recordClasses[std::size_t(row_)];
        if (Py_TYPE(values) == reinterpret_cast<PyTypeObject *>(cls) || PyList_Check(values) ||
            PyTuple_CheckExact(values)) {
            PyObject *fast = PySequence_Fast(values, "");
            if (fast == nullptr)
                return -1;
            held_ = fast;
            if (std::size_t(PySequence_Fast_GET_SIZE(fast)) != count_) {
                PyErr_Format(PyExc_ValueError, "%s takes %zu values in wire order, not %zd", wireRows[row_].message,
                             count_, PySequence_Fast_GET_SIZE(fast));
                return -1;
            }
            for (std::size_t k = 0; k < count_; ++k)
                slots_[k] = PySequence_Fast_GET_ITEM(fast, Py_ssize_t(k));
            return 0;
        }
        PyObject *dict = values;
        if (!PyDict_Check(values)) {
            dict = PyDict_New();
            if (dict == nullptr)
                return -1;
            held_ = dict;
            if (PyDict_Merge(dict, values, 1) < 0) {
                PyErr_Clear();
                PyErr_Format(PyExc_TypeError, "the values of %s are a mapping of field names, a sequence in wire order "
                             "or a record, not %s", wireRows[row_].message, Py_TYPE(values)->tp_name);
                return -1;
            }
        }
        Py_ssize_t at = 0;
        PyObject *name, *value;
        while (PyDict_Next(dict, &at, &name, &value))
            if (set(name, value) < 0)
                return -1;
        return 0;
    }

    int fill(PyObject *value)
    {
        for (std::size_t k = 0; k < count_; ++k)
            if (slots_[k] == nullptr)
                slots_[k] = value;
        return 0;
    }

    // Every field given, each in range: the record, else -1 with the reason.
    int write(void *storage)
    {
        std::size_t given = 0;
        for (std::size_t k = 0; k < count_; ++k)
            given += slots_[k] != nullptr;
        if (given < count_) {
            std::string missing;
            for (std::size_t k = 0; k < count_; ++k)
                if (slots_[k] == nullptr)
                    missing += (missing.empty() ? "" : ", ") + std::string(fieldOf(row_, k).name);
            PyErr_Format(PyExc_ValueError, "%s: no value for %s (give every field, or fill=0 for those left out)",
                         wireRows[row_].message, missing.c_str());
            return -1;
        }
        rowInfo(row_).record->make(storage);
        for (std::size_t k = 0; k < count_; ++k)
            if (putField(row_, k, slots_[k], storage) < 0)
                return -1;
        return 0;
    }

private:
    int row_;
    std::size_t count_;
    PyObject *slots_[maxFields > 0 ? maxFields : 1] = {};
    PyObject *held_ = nullptr;
};

std::string hexId(unsigned id)
{
    char text[8];
    std::snprintf(text, sizeof text, "0x%04X", id & 0xFFFFu);
    return text;
}

QByteArray &scratch()
{
    static thread_local QByteArray out;
    out.reserve(256);
    out.resize(0);
    return out;
}

// --- the module's functions ---------------------------------------------------

void raiseTooShort(int row, int size)
{
    const WireRowEntry &e = wireRows[row];
    PyErr_Format(registry().payloadTooShort, "payload of %d byte%s is too short for %s (%s), which needs %d",
                 size, size == 1 ? "" : "s", e.message, hexId(e.id).c_str(), int(e.wireSize));
}

PyObject *decode(PyObject *, PyObject *const *args, Py_ssize_t nargs)
{
    if (nargs != 2) {
        PyErr_Format(PyExc_TypeError, "decode() takes a key and a payload (%zd arguments given)", nargs);
        return nullptr;
    }
    const int row = findRow(args[0]);
    if (row < 0)
        return nullptr;
    Bytes payload(args[1]);
    if (!payload.ok())
        return nullptr;
    RecordStorage storage;
    CaptureLine warning;
    if (!rowInfo(row).record->fromWire(payload.raw(), &storage)) {
        warning.logAtDebug();
        raiseTooShort(row, payload.size());
        return nullptr;
    }
    const int wireSize = wireRows[row].wireSize;
    return makeRecord(row, &storage, payload.data() + wireSize, payload.size() - wireSize);
}

PyObject *encode(PyObject *, PyObject *const *args, Py_ssize_t nargs, PyObject *kwnames)
{
    if (nargs < 1 || nargs > 2) {
        PyErr_Format(PyExc_TypeError, "encode() takes a key and at most one object of values (%zd given)", nargs);
        return nullptr;
    }
    const int row = findRow(args[0]);
    if (row < 0)
        return nullptr;
    Values values(row);
    if (nargs == 2 && args[1] != Py_None && values.setAll(args[1]) < 0)
        return nullptr;
    PyObject *fill = nullptr;
    const Py_ssize_t keywords = kwnames != nullptr ? PyTuple_GET_SIZE(kwnames) : 0;
    for (Py_ssize_t i = 0; i < keywords; ++i) {
        PyObject *name = PyTuple_GET_ITEM(kwnames, i);
        if (PyUnicode_Compare(name, registry().fillName) == 0 &&
            !PyDict_Contains(registry().fieldIndex[std::size_t(row)], name)) {
            fill = args[nargs + i];
            continue;
        }
        if (values.setKeyword(i, name, args[nargs + i]) < 0)
            return nullptr;
    }
    if (fill != nullptr)
        values.fill(fill);
    RecordStorage storage;
    if (values.write(&storage) < 0)
        return nullptr;
    QByteArray &out = scratch();
    rowInfo(row).record->toWire(&storage, out);
    return PyBytes_FromStringAndSize(out.constData(), out.size());
}

// The record's values back into a record of the library, for dump.
int recordFrom(PyObject *record, void *storage)
{
    const int row = findRow(reinterpret_cast<PyObject *>(Py_TYPE(record)));
    if (row < 0)
        return -1;
    Values values(row);
    if (values.setAll(record) < 0 || values.write(storage) < 0)
        return -1;
    return row;
}

PyObject *dump(PyObject *, PyObject *record)
{
    RecordStorage storage;
    const int row = recordFrom(record, &storage);
    if (row < 0)
        return nullptr;
    CaptureLine line;
    rowInfo(row).record->dump(&storage);
    const QByteArray utf8 = line.line().toUtf8();
    return PyUnicode_FromStringAndSize(utf8.constData(), utf8.size());
}

PyObject *fromProtobuf(PyObject *, PyObject *const *args, Py_ssize_t nargs)
{
    if (nargs != 2) {
        PyErr_Format(PyExc_TypeError, "from_protobuf() takes a key and the protobuf bytes (%zd arguments given)", nargs);
        return nullptr;
    }
    const int row = findRow(args[0]);
    if (row < 0)
        return nullptr;
    Bytes data(args[1]);
    if (!data.ok())
        return nullptr;
    RecordStorage storage;
    if (!rowInfo(row).record->fromProto(data.raw(), &storage)) {
        PyErr_Format(PyExc_ValueError, "%d bytes do not parse as zelko.messages.%s", data.size(), wireRows[row].message);
        return nullptr;
    }
    return makeRecord(row, &storage, nullptr, 0);
}

// _to_protobuf(key, payload, msecs, sequence): the conversion, with the time
// in milliseconds since 1970. An id of no row still goes to the library,
// which logs it, and then raises KeyError.
PyObject *toProtobuf(PyObject *, PyObject *const *args, Py_ssize_t nargs)
{
    if (nargs != 4) {
        PyErr_SetString(PyExc_TypeError, "_to_protobuf() takes a key, a payload, msecs and a sequence");
        return nullptr;
    }
    Bytra::Can::Message message;
    int row = -1;
    if (PyLong_CheckExact(args[0])) {
        int overflow = 0;
        const long id = PyLong_AsLongAndOverflow(args[0], &overflow);
        if (overflow == 0 && id >= 0 && id <= 0xFFFF) {
            message.msgId = quint16(id);
            row = rowOfId(message.msgId);
        } else {
            findRow(args[0]);   // raises the KeyError of every function for an id past 16 bits
            return nullptr;
        }
    }
    if (row < 0 && !PyLong_CheckExact(args[0])) {
        row = findRow(args[0]);
        if (row < 0)
            return nullptr;
        message.msgId = wireRows[row].id;
    }
    Bytes payload(args[1]);
    if (!payload.ok())
        return nullptr;
    const long long msecs = PyLong_AsLongLong(args[2]);
    const long sequence = PyLong_AsLong(args[3]);
    if (PyErr_Occurred())
        return nullptr;
    if (sequence < -0x8000 || sequence > 0xFFFF) {
        PyErr_Format(PyExc_ValueError, "sequence %ld is outside -32768 to 65535", sequence);
        return nullptr;
    }
    message.sequence = quint16(sequence);
    message.payload = QByteArray(payload.data(), payload.size());
    const QDateTime time = QDateTime::fromMSecsSinceEpoch(msecs, Qt::UTC);
    QByteArray out;
    if (row < 0) {
        zelko::canMessageToProtobufByteArray(time, message, out);
        PyErr_Format(PyExc_KeyError, "no message has the id %s", hexId(message.msgId).c_str());
        return nullptr;
    }
    const bool isShort = payload.size() < int(wireRows[row].wireSize);
    if (isShort) {
        CaptureLine warning;
        zelko::canMessageToProtobufByteArray(time, message, out);
        warning.logAtDebug();
        raiseTooShort(row, payload.size());
        return nullptr;
    }
    if (!zelko::canMessageToProtobufByteArray(time, message, out)) {
        PyErr_Format(PyExc_ValueError, "%s could not be converted", wireRows[row].message);
        return nullptr;
    }
    return PyBytes_FromStringAndSize(out.constData(), out.size());
}

// _read_header(data): (has_time, seconds, nanos, sequence, msg_id) of any
// schema message, read as an Envelope.
PyObject *readHeader(PyObject *, PyObject *data)
{
    Bytes bytes(data);
    if (!bytes.ok())
        return nullptr;
    zelko::messages::Envelope envelope;
    if (!envelope.ParseFromArray(bytes.data(), bytes.size())) {
        PyErr_Format(PyExc_ValueError, "%d bytes do not parse as a message of the schema", bytes.size());
        return nullptr;
    }
    const auto &header = envelope.header();
    return Py_BuildValue("(OLiiI)", header.has_timestamp() ? Py_True : Py_False,
                         static_cast<long long>(header.timestamp().seconds()), int(header.timestamp().nanos()),
                         int(header.sequence()), unsigned(header.msgid()));
}

PyMethodDef methods[] = {
    {"decode", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&decode)), METH_FASTCALL,
     "decode(key, payload, /)\n--\n\n"
     "The record of the message `key` (id, name, MSG_ID_ enumerator or schema name)\n"
     "read from `payload` by the library's fromQByteArray. Raises PayloadTooShort\n"
     "when the payload does not hold the record."},
    {"encode", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&encode)), METH_FASTCALL | METH_KEYWORDS,
     "encode(key, values=None, /, **fields)\n--\n\n"
     "The wire bytes of a record of `key` (toQByteArray). Every field must be\n"
     "given, by `values` (a record, a mapping or a sequence in wire order) or by\n"
     "keyword; fill=VALUE gives the ones left out. A value the field's wire type\n"
     "cannot hold raises ValueError naming the field and the range."},
    {"_dump", &dump, METH_O, "The library's dump line of a record."},
    {"_from_protobuf", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&fromProtobuf)), METH_FASTCALL,
     "The record of `key` read from protobuf bytes by deserializeProto."},
    {"_to_protobuf", reinterpret_cast<PyCFunction>(reinterpret_cast<void (*)()>(&toProtobuf)), METH_FASTCALL,
     "canMessageToProtobufByteArray(key, payload, msecs, sequence)."},
    {"_read_header", &readHeader, METH_O, "The Header of any schema message, read as an Envelope."},
    {nullptr, nullptr, 0, nullptr}};

} // namespace

void addRecords(py::module_ &m)
{
    if (PyModule_AddFunctions(m.ptr(), methods) < 0)
        throw py::error_already_set();
}

} // namespace python
} // namespace vorlink
