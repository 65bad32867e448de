// The library's log lines (Qt's message output) go to Python's logging, to the
// logger "vorlink" at their level, with their Qt category. A line that a call
// of this module asked for (a dump, the warning of a short payload) is taken
// by that call instead; a warning so taken is passed on at DEBUG, since the
// exception raised says it in Python's words.

#include "Module.h"

#include <QByteArray>
#include <QtGlobal>

namespace vorlink {
namespace python {
namespace {

thread_local CaptureLine *capturing = nullptr;
QtMessageHandler previousHandler = nullptr;
PyObject *logLine = nullptr;   // vorlink._log(level, category, text)

int pythonLevel(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return 10;
    case QtInfoMsg: return 20;
    case QtWarningMsg: return 30;
    case QtCriticalMsg: return 40;
    case QtFatalMsg: return 50;
    }
    return 30;
}

void send(int level, const char *category, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    const PyGILState_STATE gil = PyGILState_Ensure();
    PyObject *type_, *value, *traceback;
    PyErr_Fetch(&type_, &value, &traceback);   // a call may be on its way out with an error
    PyObject *result = nullptr;
    PyObject *line = PyUnicode_DecodeUTF8(utf8.constData(), utf8.size(), "replace");
    if (line != nullptr) {
        result = PyObject_CallFunction(logLine, "isO", level, category, line);
        Py_DECREF(line);
    }
    if (result == nullptr)
        PyErr_WriteUnraisable(logLine);
    Py_XDECREF(result);
    PyErr_Restore(type_, value, traceback);
    PyGILState_Release(gil);
}

void handleMessage(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    const char *category = context.category != nullptr ? context.category : "default";
    if (CaptureLine::take(text, category))
        return;
    if (logLine == nullptr || !Py_IsInitialized() || _Py_IsFinalizing()) {
        if (previousHandler != nullptr)
            previousHandler(type, context, text);
        return;
    }
    send(pythonLevel(type), category, text);
}

} // namespace

CaptureLine::CaptureLine()
    : outer_(capturing)
{
    capturing = this;
}

CaptureLine::~CaptureLine() { capturing = outer_; }

bool CaptureLine::take(const QString &line, const char *category)
{
    CaptureLine *capture = capturing;
    if (capture == nullptr || capture->caught_)
        return false;
    capture->line_ = line;
    capture->category_ = category;
    capture->caught_ = true;
    return true;
}

void CaptureLine::logAtDebug() const
{
    if (caught_ && logLine != nullptr)
        send(10, category_.c_str(), line_);
}

void addLogging(py::module_ &m)
{
    m.def(
        "_install_log_handler",
        [](py::object callback) {
            Py_XDECREF(logLine);
            logLine = callback.release().ptr();
            QtMessageHandler previous = qInstallMessageHandler(handleMessage);
            if (previous != handleMessage)
                previousHandler = previous;
        },
        "Sends the library's log lines to callback(level, category, text).");
}

} // namespace python
} // namespace vorlink
