#include "persistence/PersistenceLog.h"

namespace vantrix {

Q_LOGGING_CATEGORY(lcPersistence, "vantrix.persistence")

}  // namespace vantrix
