#include "media/MediaLog.h"

Q_LOGGING_CATEGORY(lcMedia, "vantrix.media")
