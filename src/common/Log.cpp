#include "Log.h"

Q_LOGGING_CATEGORY(lcConsole, "quillwave.console", QtInfoMsg)

namespace Log {
void console(const QString &line) {
    qCInfo(lcConsole).noquote() << line;
}

void warning(const QString &line) { qCWarning(lcConsole).noquote() << line; }

void setConsoleEnabled(bool enabled) {
    const_cast<QLoggingCategory &>(lcConsole()).setEnabled(QtInfoMsg, enabled);
}
} // namespace Log
