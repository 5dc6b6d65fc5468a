#pragma once

#include <QLoggingCategory>

// The log category of the media layer, "vantrix.media". Refusals of the user's input are logged at
// info level (qCInfo), failures that should not happen at error level (qCCritical).
Q_DECLARE_LOGGING_CATEGORY(lcMedia)
