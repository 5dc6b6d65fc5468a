#include "app/AppLog.h"

namespace vantrix {

Q_LOGGING_CATEGORY(lcApp, "vantrix.app")

}  // namespace vantrix
