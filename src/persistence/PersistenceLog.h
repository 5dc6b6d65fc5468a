#pragma once

#include <QLoggingCategory>

namespace vantrix {

// The "persistence" log category, "vantrix.persistence". Every line is at info level.
Q_DECLARE_LOGGING_CATEGORY(lcPersistence)

}  // namespace vantrix
