#pragma once

// Collects the Qt log lines written while it lives, with level and category.
// Not for use from several threads.

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <ostream>
#include <string>
#include <vector>

struct LogLine
{
    QtMsgType type;
    std::string category, text;
    bool operator==(const LogLine &o) const { return type == o.type && category == o.category && text == o.text; }
};

inline void PrintTo(const LogLine &l, std::ostream *os) { *os << int(l.type) << " " << l.category << " \"" << l.text << "\""; }
inline LogLine debugLine(const std::string &text) { return {QtDebugMsg, "default", text}; }
inline LogLine typesWarning(const std::string &text) { return {QtWarningMsg, "bytra.types", text}; }

class LogCapture
{
public:
    LogCapture() : previous_(qInstallMessageHandler(&LogCapture::handler)) { active() = this; }
    ~LogCapture()
    {
        qInstallMessageHandler(previous_);
        active() = nullptr;
    }
    std::vector<LogLine> lines;

private:
    static LogCapture *&active()
    {
        static LogCapture *capture = nullptr;
        return capture;
    }
    static void handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (active())
            active()->lines.push_back({type, context.category ? context.category : "", text.toStdString()});
    }
    QtMessageHandler previous_;
};

inline QByteArray hex(const char *text) { return QByteArray::fromHex(text); }
inline std::string spaced(const QByteArray &bytes) { return bytes.toHex(' ').toUpper().toStdString(); }
