#include "Bytra/Log.h"

namespace Bytra {

Q_LOGGING_CATEGORY(logTypes, "bytra.types")

} // namespace Bytra
