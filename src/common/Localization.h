#pragma once

#include <QString>

// Texts for the user are looked up by key in the program's string tables (English at least).
namespace Localization {
QString text(const char *key);
} // namespace Localization
