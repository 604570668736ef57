#pragma once

#include <QLoggingCategory>
#include <QString>

// Diagnostic console lines of the tag readers, the song model and the tools.
Q_DECLARE_LOGGING_CATEGORY(lcConsole)

namespace Log {
void console(const QString &line);
// A line that is shown even when the console lines are switched off.
void warning(const QString &line);
// Switches the console lines on or off for the whole process (the command line's --quiet).
void setConsoleEnabled(bool enabled);
} // namespace Log
