#pragma once

// Test helpers: collect Qt log lines, write hex, make time stamps.

#include <QByteArray>
#include <QDateTime>
#include <QString>
#include <QtGlobal>

#include <ostream>
#include <string>
#include <vector>

namespace testing_support {

struct LogLine
{
    QtMsgType type;
    std::string category;
    std::string text;

    bool operator==(const LogLine &o) const { return type == o.type && category == o.category && text == o.text; }
};

inline void PrintTo(const LogLine &l, std::ostream *os)
{
    *os << "{type " << int(l.type) << ", " << l.category << ", \"" << l.text << "\"}";
}

// Captures every Qt log line while alive. Not for use from several threads.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    const std::vector<LogLine> &lines() const { return lines_; }
    std::vector<std::string> texts() const;
    void clear() { lines_.clear(); }

private:
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &text);
    std::vector<LogLine> lines_;
    QtMessageHandler previous_;
};

// "02 00 3c" and "02003c" both give the three bytes.
QByteArray hex(const char *text);
// Upper-case hex with a space between bytes, for readable failures.
std::string spaced(const QByteArray &bytes);

inline QDateTime atMs(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC);
}

inline LogLine debugLine(const std::string &text)
{
    return {QtDebugMsg, "default", text};
}

inline LogLine typesWarning(const std::string &text)
{
    return {QtWarningMsg, "bytra.types", text};
}

} // namespace testing_support
