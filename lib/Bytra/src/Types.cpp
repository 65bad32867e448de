#include "Bytra/Types.h"

#include "Bytra/Format.h"
#include "Bytra/Log.h"

#include <QDebug>

namespace Bytra {
namespace Types {
namespace detail {

void warnNotEnoughData(int position, int width, const char *typeName, const QByteArray &buffer,
                       const QString &valueName)
{
    if (!logTypes().isWarningEnabled())
        return;
    const QString forValue = valueName.isEmpty() ? QString() : QStringLiteral("for value %1").arg(valueName);
    qCWarning(logTypes).noquote()
        << QStringLiteral("Not enough data from position %1 to the length of %2 to get data of type '%3' in buffer %4 %5")
               .arg(position)
               .arg(width)
               .arg(QString::fromLatin1(typeName))
               .arg(Format::toHexString(buffer, '.'))
               .arg(forValue);
}

} // namespace detail
} // namespace Types
} // namespace Bytra
