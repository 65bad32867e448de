#pragma once

#include <QLoggingCategory>

namespace Bytra {

// Category of the wire value reader's warnings ("bytra.types").
Q_DECLARE_LOGGING_CATEGORY(logTypes)

} // namespace Bytra
