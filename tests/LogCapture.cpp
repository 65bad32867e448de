#include "LogCapture.h"

namespace testing_support {

namespace {
LogCapture *active = nullptr;
}

LogCapture::LogCapture()
{
    active = this;
    previous_ = qInstallMessageHandler(&LogCapture::handler);
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(previous_);
    active = nullptr;
}

void LogCapture::handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    if (active)
        active->lines_.push_back({type, context.category ? context.category : "", text.toStdString()});
}

std::vector<std::string> LogCapture::texts() const
{
    std::vector<std::string> out;
    for (const LogLine &l : lines_)
        out.push_back(l.text);
    return out;
}

QByteArray hex(const char *text)
{
    return QByteArray::fromHex(QByteArray(text).replace(' ', ""));
}

std::string spaced(const QByteArray &bytes)
{
    return bytes.toHex(' ').toUpper().toStdString();
}

} // namespace testing_support
