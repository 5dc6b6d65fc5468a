#pragma once

#include <QLoggingCategory>

namespace vantrix {

// The application model's log category, "vantrix.app": info for refusals of the user's input and
// for session restores that start fresh, error (qCCritical) for failures that should not happen.
Q_DECLARE_LOGGING_CATEGORY(lcApp)

}  // namespace vantrix
