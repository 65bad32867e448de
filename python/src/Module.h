#pragma once

// What the parts of the extension share: the registry that ties each row of
// the dictionary to its Python objects, and the functions each part adds to
// the module. A further part (another .cpp) declares its add function here
// and is called from Module.cpp.

#include <pybind11/pybind11.h>

#include <QString>

#include <cstddef>
#include <string>
#include <vector>

namespace vorlink {
namespace python {

namespace py = pybind11;

struct Registry
{
    // Per row of vorlink::wireRows: its record class (a tuple subclass made by
    // vorlink.records) and a dict from each field's name to its index.
    std::vector<PyObject *> recordClasses;
    std::vector<PyObject *> fieldIndex;
    std::vector<PyObject *> fieldNames;   // tuple of the interned names, in wire order
    // Keys already met (exact names, classes, message types) to row indexes.
    PyObject *keys = nullptr;
    // vorlink._resolve(key): the row index of any other key, or it raises.
    PyObject *resolve = nullptr;
    // vorlink._nearest(word, names): the three nearest of `names`, as a text.
    PyObject *nearest = nullptr;
    PyObject *payloadTooShort = nullptr;
    PyObject *unreadName = nullptr;   // "unread"
    PyObject *fillName = nullptr;     // "fill"
    bool ready = false;
};

Registry &registry();

// The row index of `key`, or -1 with a Python exception set.
int findRow(PyObject *key);

// Collects the next log line written on this thread while it lives, instead
// of letting it reach Python's logging.
class CaptureLine
{
public:
    CaptureLine();
    ~CaptureLine();
    CaptureLine(const CaptureLine &) = delete;
    CaptureLine &operator=(const CaptureLine &) = delete;
    const QString &line() const { return line_; }
    bool caught() const { return caught_; }

    // Passes the line taken on to logging at DEBUG.
    void logAtDebug() const;

    // The Qt message handler: true when a capture on this thread took the line.
    static bool take(const QString &line, const char *category);

private:
    CaptureLine *outer_;
    QString line_;
    std::string category_;
    bool caught_ = false;
};

void addDictionary(py::module_ &m);
void addRecords(py::module_ &m);
void addLogging(py::module_ &m);
void addLogs(py::module_ &m);

} // namespace python
} // namespace vorlink
