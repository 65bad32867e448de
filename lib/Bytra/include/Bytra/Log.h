#pragma once

#include <QLoggingCategory>

/// \file
/// The logging category of the wire value reader.

namespace Bytra {

/// \fn const QLoggingCategory &logTypes()
/// The category "bytra.types" of the wire value reader's warnings (a payload
/// too short for its record). All its levels are on by default; the logging
/// rule "bytra.types.warning=false" turns its warnings off, and the library
/// then does not even build their text.
Q_DECLARE_LOGGING_CATEGORY(logTypes)

} // namespace Bytra
