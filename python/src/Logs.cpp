// Bus logs into columns: vorlink.read_log's C++ half. The log is read by the
// shared log reader with the GIL released; each column is handed to numpy as
// it lies in memory, owned by the Log object that read it.

#include "Module.h"

#include "BusLog.h"
#include "Dictionary.h"
#include "LineReader.h"
#include "LogScan.h"
#include "LogTables.h"
#include "Selection.h"

#include <pybind11/numpy.h>
#include <pybind11/stl.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vorlink {
namespace python {
namespace {

const char *numpyType(WireType type)
{
    switch (type) {
    case WireType::U08: return "<u1";
    case WireType::U16: return "<u2";
    case WireType::U32: return "<u4";
    case WireType::S16: return "<i2";
    case WireType::S32: return "<i4";
    case WireType::F32: return "<f4";
    }
    return "";
}

// What one read of a log holds: its tables, its rejected lines and its totals.
struct Log
{
    LogTables tables;
    std::vector<Rejected> errors;
    std::string name;
    long long messages = 0, leftOut = 0, lines = 0;
};

// An end of the span given to read_log: (milliseconds since 1970, the
// nanoseconds past them), or the text --from and --to take.
LogTime spanEnd(const py::object &value, const char *what, LogTime none)
{
    if (value.is_none())
        return none;
    LogTime time;
    if (py::isinstance<py::str>(value)) {
        const std::string text = value.cast<std::string>();
        if (!parseTimeArgument(text, time))
            throw py::value_error(std::string(what) + ": '" + text + "' is neither seconds since 1970 nor an ISO 8601 time");
        return time;
    }
    const auto pair = value.cast<std::pair<qint64, qint32>>();
    return LogTime{pair.first, pair.second};
}

[[noreturn]] void raiseOsError(int code, const std::string &path)
{
    errno = code;
    PyErr_SetFromErrnoWithFilename(PyExc_OSError, path.c_str());
    throw py::error_already_set();
}

// A Python file object's readinto, called with the GIL taken for the call.
LineReader::ReadFunction pythonReader(py::object file, std::optional<py::error_already_set> &failure)
{
    return [file, &failure](char *data, std::size_t size) -> long {
        py::gil_scoped_acquire gil;
        try {
            py::memoryview view = py::memoryview::from_memory(data, py::ssize_t(size));
            py::object n = file.attr("readinto")(view);
            return n.is_none() ? 0 : n.cast<long>();
        } catch (py::error_already_set &e) {
            failure.emplace(std::move(e));
            return -EIO;
        }
    };
}

std::shared_ptr<Log> readLog(py::object source, const std::vector<std::string> &messages, py::object start,
                             py::object end, bool strict, py::object progress)
{
    Selection selection;
    std::string error;
    for (const std::string &key : messages)
        if (!selection.addMessage(key, error))
            throw py::key_error("message: " + error);
    const LogTime from = spanEnd(start, "start", LogTime{std::numeric_limits<qint64>::min(), 0});
    const LogTime to = spanEnd(end, "end", LogTime{std::numeric_limits<qint64>::max(), 0});
    if (!selection.setSpan(from, to))
        throw py::value_error("start is later than end");

    auto log = std::make_shared<Log>();
    LogScan scan(selection, strict);
    std::optional<py::error_already_set> readFailure;
    if (py::isinstance<py::str>(source) || py::hasattr(source, "__fspath__")) {
        const std::string path = py::str(py::module_::import("os").attr("fsdecode")(source));
        errno = 0;
        if (!scan.open(path, error))
            raiseOsError(errno != 0 ? errno : EISDIR, path);
    } else {
        py::object name = py::getattr(source, "name", py::str("<file>"));
        scan.open(pythonReader(source, readFailure), py::str(name));
    }
    scan.rejects().setSink([&log](const Rejected &rejected) { log->errors.push_back(rejected); });

    // Ctrl-C: Python only sees a signal when it runs, so the read takes the
    // GIL ten times a second to let it, and stops at the next line when a
    // handler raised. A pipe that stays quiet is looked at as often. Signal
    // handlers run in the main thread only: a read in another thread takes
    // the GIL only to show progress, when asked to.
    volatile std::sig_atomic_t stop = 0;
    std::optional<py::error_already_set> interrupted;
    py::module_ threading = py::module_::import("threading");
    const bool mainThread = threading.attr("current_thread")().is(threading.attr("main_thread")());
    auto lastLook = std::chrono::steady_clock::now();
    const auto look = [&](long long bytes) {
        const auto now = std::chrono::steady_clock::now();
        if (now - lastLook < std::chrono::milliseconds(100))
            return;
        lastLook = now;
        py::gil_scoped_acquire gil;
        try {
            if (!progress.is_none())
                progress(bytes);
            if (mainThread && PyErr_CheckSignals() != 0)
                throw py::error_already_set();
        } catch (py::error_already_set &e) {
            interrupted.emplace(std::move(e));
            stop = 1;
        }
    };
    if (mainThread || !progress.is_none())
        scan.onProgress([&](long long bytes, long long) { look(bytes); });
    if (mainThread) {
        scan.input().onIdle([&] {
            look(scan.input().bytesConsumed());
            return stop == 0;
        });
        scan.input().stopOn(&stop);
    }
    {
        py::gil_scoped_release released;
        log->tables.read(scan);
    }
    if (interrupted)
        throw std::move(*interrupted);
    if (readFailure)
        throw std::move(*readFailure);
    if (scan.input().readError() != 0)
        raiseOsError(scan.input().readError(), scan.input().name());
    log->name = scan.input().name();
    log->messages = scan.messages();
    log->leftOut = scan.leftOut();
    log->lines = scan.lineNumber();
    return log;
}

py::array column(const Column &values, const char *type, py::handle owner)
{
    py::array array(py::dtype(type), {py::ssize_t(values.size())}, {py::ssize_t(values.width())}, values.data(), owner);
    array.attr("setflags")(py::arg("write") = false);   // the Log's own: frames get copies
    return array;
}

// Each table as (id, time, sequence, [field columns], unread ends or None,
// unread bytes or None, (count, first, last, bytes, unread, rate or None)),
// times in nanoseconds since 1970.
py::list tables(py::object self)
{
    const Log &log = self.cast<const Log &>();
    py::list out;
    for (const LogTable *table : log.tables.tables()) {
        py::list fields;
        std::size_t k = 0;
        for (const WireField &field : table->row->fields)
            if (field.position >= 0)
                fields.append(column(table->fields[k++], numpyType(field.type), self));
        const MessageTally &t = table->tally;
        double rate = 0;
        py::object rateHz = t.rateHz(rate) ? py::object(py::float_(rate)) : py::object(py::none());
        const auto nanos = [](qint64 msecs, qint32 past) { return py::int_(msecs) * py::int_(1000000) + py::int_(past); };
        py::object ends = py::none(), bytes = py::none();
        if (table->keepsUnread) {
            ends = column(table->unreadEnd, "<i8", self);
            bytes = column(table->unreadBytes, "<u1", self);
        }
        out.append(py::make_tuple(int(table->row->id), column(table->timeNs, "<i8", self),
                                  column(table->sequence, "<u2", self), fields, ends, bytes,
                                  py::make_tuple(t.count, nanos(t.first, t.firstNanos), nanos(t.last, t.lastNanos),
                                                 t.bytes, t.unread, rateHz)));
    }
    return out;
}

// A column of bytes objects: value k is data[ends[k-1]:ends[k]].
py::array bytesColumn(py::array_t<qint64, py::array::c_style | py::array::forcecast> ends,
                      py::array_t<quint8, py::array::c_style | py::array::forcecast> data)
{
    const py::ssize_t n = ends.size();
    py::array out = py::module_::import("numpy").attr("empty")(n, "O");
    PyObject **slots = static_cast<PyObject **>(out.mutable_data());
    const qint64 *end = ends.data();
    const char *bytes = reinterpret_cast<const char *>(data.data());
    py::bytes empty("");
    qint64 start = 0;
    for (py::ssize_t k = 0; k < n; ++k) {
        if (end[k] < start || end[k] > data.size())
            throw py::value_error("unread bytes: the ends do not fit the bytes");
        PyObject *value = end[k] == start ? empty.inc_ref().ptr()
                                          : PyBytes_FromStringAndSize(bytes + start, end[k] - start);
        if (value == nullptr)
            throw py::error_already_set();
        PyObject *old = slots[k];
        slots[k] = value;
        Py_XDECREF(old);
        start = end[k];
    }
    return out;
}

} // namespace

void addLogs(py::module_ &m)
{
    py::class_<Log, std::shared_ptr<Log>>(m, "_Log")
        .def_readonly("name", &Log::name)
        .def_readonly("messages", &Log::messages)
        .def_readonly("left_out", &Log::leftOut)
        .def_readonly("lines", &Log::lines)
        .def_property_readonly("errors",
                               [](const Log &log) {
                                   py::list errors;
                                   for (const Rejected &r : log.errors)
                                       errors.append(py::make_tuple(r.line, r.cause, r.reason));
                                   return errors;
                               })
        .def_property_readonly("value_bytes", [](const Log &log) { return log.tables.valueBytes(); })
        .def_property_readonly("held_bytes", [](const Log &log) { return log.tables.heldBytes(); })
        .def("_tables", &tables);
    m.def(
        "_message_ids",
        [](const std::string &key) {
            std::vector<const RowInfo *> rows;
            std::string error;
            if (!resolveMessageKey(key, rows, error))
                throw py::key_error(error);
            std::vector<int> ids;
            for (const RowInfo *row : rows)
                ids.push_back(row->id);
            return ids;
        },
        "The ids of the messages a --message key names.");
    m.def("_read_log", &readLog, py::arg("source"), py::arg("messages"), py::arg("start"), py::arg("end"),
          py::arg("strict"), py::arg("progress"), "Reads a bus log into columns, with the GIL released.");
    m.def("_bytes_column", &bytesColumn, py::arg("ends"), py::arg("data"),
          "The unread bytes of a table as a column of bytes objects.");
}

} // namespace python
} // namespace vorlink
